// Device inputs and their connections, one connection per media the device delivers.
#include "platform/qtkit.h"

QTCaptureConnection::QTCaptureConnection(QTFormatDescription* description, NSString* mediaType)
    : description(description), media(mediaType) {
    if (description != nullptr)
        description->retain();
}

QTCaptureConnection::~QTCaptureConnection() {
    NSReleaseIfSet(description);
}

QTCaptureDeviceInput::QTCaptureDeviceInput(QTCaptureDevice* device)
    : captureDevice(device), connectionList(nullptr) {
    std::vector<NSObject*> connections;
    if (device != nullptr) {
        device->retain();
        // The first format of each media stands for the connection.
        const std::vector<platform::DeviceFormat> formats = device->backendDevice()->Formats();
        bool haveVideo = false, haveSound = false;
        for (const platform::DeviceFormat& format : formats) {
            const bool sound = format.kind == platform::MediaKind::Sound;
            if ((sound && haveSound) || (!sound && haveVideo))
                continue;
            (sound ? haveSound : haveVideo) = true;
            auto* description = new QTFormatDescription(format);
            auto* connection = new QTCaptureConnection(description, description->mediaType());
            description->release();
            connections.push_back(connection);
        }
    }
    connectionList = new NSArray(connections);
    for (NSObject* connection : connections)
        connection->release();
}

QTCaptureDeviceInput::~QTCaptureDeviceInput() {
    connectionList->release();
    NSReleaseIfSet(captureDevice);
}
