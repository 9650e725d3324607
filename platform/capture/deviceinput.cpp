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
        // The first format of each media stands for its connection; a muxed stream (a DV
        // deck's) has a picture connection and a sound connection.
        bool haveVideo = false, haveSound = false;
        auto add = [&connections](const platform::DeviceFormat& format) {
            auto* description = new QTFormatDescription(format);
            connections.push_back(new QTCaptureConnection(description, description->mediaType()));
            description->release();
        };
        for (const platform::DeviceFormat& format : device->backendDevice()->Formats()) {
            if (format.kind != platform::MediaKind::Sound && !haveVideo) {
                platform::DeviceFormat pictures = format;
                pictures.kind = platform::MediaKind::Video;
                add(pictures);
                haveVideo = true;
            }
            if (format.kind != platform::MediaKind::Video && format.audio.mFormatID != 0 &&
                !haveSound) {
                platform::DeviceFormat sound = format;
                sound.kind = platform::MediaKind::Sound;
                sound.formatType = format.audio.mFormatID;
                add(sound);
                haveSound = true;
            }
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
