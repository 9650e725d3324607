// The capture framework's string constants.
#include "platform/qtkit.h"

NSString* const QTMediaTypeVideo = NSConstantString("vide");
NSString* const QTMediaTypeSound = NSConstantString("soun");
NSString* const QTMediaTypeMuxed = NSConstantString("muxx");

NSString* const QTCaptureDeviceAVCTransportControlsAttribute =
    NSConstantString("QTCaptureDeviceAVCTransportControlsAttribute");
NSString* const QTCaptureDeviceAVCTransportControlsSpeedKey =
    NSConstantString("QTCaptureDeviceAVCTransportControlsSpeedKey");
NSString* const QTCaptureDeviceAVCTransportControlsPlaybackModeKey =
    NSConstantString("QTCaptureDeviceAVCTransportControlsPlaybackModeKey");

NSString* const QTSampleBufferSMPTETimeAttribute =
    NSConstantString("QTSampleBufferSMPTETimeAttribute");
NSString* const QTFormatDescriptionAudioStreamBasicDescriptionAttribute =
    NSConstantString("QTFormatDescriptionAudioStreamBasicDescriptionAttribute");
NSString* const QTFormatDescriptionVideoEncodedPixelsSizeAttribute =
    NSConstantString("QTFormatDescriptionVideoEncodedPixelsSizeAttribute");
