#include "platform/qtkit.h"

QTFormatDescription::QTFormatDescription(const platform::DeviceFormat& format)
    : format(format), attributes(new NSMutableDictionary) {
    if (format.kind != platform::MediaKind::Sound && format.width > 0 && format.height > 0)
        attributes->setObject(NSValue::valueWithSize(NSSize{static_cast<double>(format.width),
                                                            static_cast<double>(format.height)}),
                              QTFormatDescriptionVideoEncodedPixelsSizeAttribute);
    if (format.kind != platform::MediaKind::Video && format.audio.mFormatID != 0)
        attributes->setObject(NSValue::valueWithBytes(&format.audio, sizeof format.audio),
                              QTFormatDescriptionAudioStreamBasicDescriptionAttribute);
}

QTFormatDescription::~QTFormatDescription() {
    attributes->release();
}

NSString* QTFormatDescription::mediaType() const {
    switch (format.kind) {
    case platform::MediaKind::Sound:
        return QTMediaTypeSound;
    case platform::MediaKind::Muxed:
        return QTMediaTypeMuxed;
    case platform::MediaKind::Video:
        break;
    }
    return QTMediaTypeVideo;
}
