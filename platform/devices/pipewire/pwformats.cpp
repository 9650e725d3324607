#include "platform/devices/pipewire/pwformats.h"

#include <spa/param/audio/raw.h>
#include <spa/param/format.h>
#include <spa/param/video/raw.h>
#include <spa/pod/iter.h>

#include <algorithm>

#include "platform/pixelformats.h"

namespace platform::pipewire {
namespace {

struct SpaPixelFormat {
    uint32_t spa;
    OSType pixelFormat;
};

// SPA names bytes in memory order ("BGRx" is B, G, R, then an unused byte), as Core Video does.
constexpr SpaPixelFormat kPixelFormats[] = {
    {SPA_VIDEO_FORMAT_YUY2, kCVPixelFormatType_422YpCbCr8_yuvs},
    {SPA_VIDEO_FORMAT_UYVY, kCVPixelFormatType_422YpCbCr8},
    {SPA_VIDEO_FORMAT_BGRx, kCVPixelFormatType_32BGRA},
    {SPA_VIDEO_FORMAT_BGRA, kCVPixelFormatType_32BGRA},
    {SPA_VIDEO_FORMAT_RGBx, kCVPixelFormatType_32RGBA},
    {SPA_VIDEO_FORMAT_RGBA, kCVPixelFormatType_32RGBA},
    {SPA_VIDEO_FORMAT_xRGB, kCVPixelFormatType_32ARGB},
    {SPA_VIDEO_FORMAT_ARGB, kCVPixelFormatType_32ARGB},
    {SPA_VIDEO_FORMAT_xBGR, kCVPixelFormatType_32ABGR},
    {SPA_VIDEO_FORMAT_ABGR, kCVPixelFormatType_32ABGR},
    {SPA_VIDEO_FORMAT_RGB, kCVPixelFormatType_24RGB},
    {SPA_VIDEO_FORMAT_BGR, kCVPixelFormatType_24BGR},
    {SPA_VIDEO_FORMAT_NV12, kCVPixelFormatType_420YpCbCr8BiPlanarVideoRange},
    {SPA_VIDEO_FORMAT_I420, kCVPixelFormatType_420YpCbCr8Planar},
    {SPA_VIDEO_FORMAT_NV16, kCVPixelFormatType_422YpCbCr8BiPlanarVideoRange},
    {SPA_VIDEO_FORMAT_NV24, kCVPixelFormatType_444YpCbCr8BiPlanarVideoRange},
    {SPA_VIDEO_FORMAT_GRAY8, kCVPixelFormatType_OneComponent8},
    {SPA_VIDEO_FORMAT_RGB16, kCVPixelFormatType_16LE565},
};

// Sizes offered inside a range of sizes besides its default and its ends.
constexpr spa_rectangle kCommonSizes[] = {{160, 120},  {320, 240},  {640, 360},
                                          {640, 480},  {800, 600},  {1024, 768},
                                          {1280, 720}, {1280, 960}, {1920, 1080}};

// Motion-JPEG is listed as the format every output converts from, as V4L2 cameras list it.
constexpr OSType kDecodedFormat = kCVPixelFormatType_422YpCbCr8;

// The values of a property: a single value, or a choice's (for a choice, the first is its
// default; the rest are an enumeration's members or a range's minimum, maximum and step).
template <typename T>
std::vector<T> ValuesOf(const spa_pod* pod, uint32_t podType, uint32_t& choice) {
    uint32_t count = 0;
    const spa_pod* values = spa_pod_get_values(pod, &count, &choice);
    std::vector<T> result;
    if (values == nullptr || values->type != podType || values->size < sizeof(T))
        return result;
    const T* body = static_cast<const T*>(SPA_POD_BODY_CONST(values));
    result.assign(body, body + count);
    return result;
}

template <typename T>
std::vector<T> PropertyValues(const spa_pod_object* object, uint32_t key, uint32_t podType,
                              uint32_t& choice) {
    const spa_pod_prop* prop = spa_pod_object_find_prop(object, nullptr, key);
    if (prop == nullptr)
        return {};
    return ValuesOf<T>(&prop->value, podType, choice);
}

// The first value of a property, or `fallback`.
template <typename T>
T DefaultValue(const spa_pod_object* object, uint32_t key, uint32_t podType, T fallback) {
    uint32_t choice = 0;
    const std::vector<T> values = PropertyValues<T>(object, key, podType, choice);
    return values.empty() ? fallback : values[0];
}

FrameInterval IntervalOf(const spa_fraction& rate) {
    return {rate.denom, rate.num};
}

std::vector<FrameRates> RatesOf(const spa_pod_object* object) {
    uint32_t choice = 0;
    const std::vector<spa_fraction> values =
        PropertyValues<spa_fraction>(object, SPA_FORMAT_VIDEO_framerate, SPA_TYPE_Fraction, choice);
    std::vector<FrameRates> rates;
    if (values.empty())
        return rates;
    if ((choice == SPA_CHOICE_Range || choice == SPA_CHOICE_Step) && values.size() >= 3) {
        // Any rate between the ends; a step in frames per second is no step in time per frame.
        FrameRates range;
        range.fastest = IntervalOf(values[2]);
        range.slowest = IntervalOf(values[1]);
        rates.push_back(range);
    } else {
        for (size_t i = choice == SPA_CHOICE_Enum && values.size() > 1 ? 1 : 0; i < values.size();
             ++i) {
            FrameRates single;
            single.fastest = IntervalOf(values[i]);
            if (!single.fastest.IsEmpty() &&
                std::none_of(rates.begin(), rates.end(), [&](const FrameRates& known) {
                    return known.fastest == single.fastest;
                }))
                rates.push_back(single);
        }
    }
    rates.erase(std::remove_if(rates.begin(), rates.end(),
                               [](const FrameRates& rate) { return rate.fastest.IsEmpty(); }),
                rates.end());
    return rates;
}

double FastestRate(const std::vector<FrameRates>& rates) {
    double fastest = 0;
    for (const FrameRates& rate : rates)
        fastest = std::max(fastest, rate.fastest.FramesPerSecond());
    return fastest;
}

std::vector<spa_rectangle> SizesOf(const spa_pod_object* object) {
    uint32_t choice = 0;
    std::vector<spa_rectangle> values =
        PropertyValues<spa_rectangle>(object, SPA_FORMAT_VIDEO_size, SPA_TYPE_Rectangle, choice);
    std::vector<spa_rectangle> sizes;
    auto add = [&sizes](spa_rectangle size) {
        if (size.width != 0 && size.height != 0 &&
            std::none_of(sizes.begin(), sizes.end(), [&](const spa_rectangle& known) {
                return known.width == size.width && known.height == size.height;
            }))
            sizes.push_back(size);
    };
    if ((choice == SPA_CHOICE_Range || choice == SPA_CHOICE_Step) && values.size() >= 3) {
        const spa_rectangle low = values[1], high = values[2];
        const spa_rectangle step = values.size() >= 4 ? values[3] : spa_rectangle{1, 1};
        add(values[0]);
        for (const spa_rectangle& size : kCommonSizes)
            if (size.width >= low.width && size.width <= high.width && size.height >= low.height &&
                size.height <= high.height &&
                (size.width - low.width) % std::max(1u, step.width) == 0 &&
                (size.height - low.height) % std::max(1u, step.height) == 0)
                add(size);
        add(high);
    } else {
        for (size_t i = choice == SPA_CHOICE_Enum && values.size() > 1 ? 1 : 0; i < values.size();
             ++i)
            add(values[i]);
    }
    return sizes;
}

void ParseVideo(const spa_pod_object* object, uint32_t subtype, std::vector<NodeFormat>& formats) {
    std::vector<uint32_t> spaFormats = {0};
    if (subtype == SPA_MEDIA_SUBTYPE_raw) {
        uint32_t choice = 0;
        spaFormats = PropertyValues<uint32_t>(object, SPA_FORMAT_VIDEO_format, SPA_TYPE_Id, choice);
        if (choice == SPA_CHOICE_Enum && spaFormats.size() > 1)
            spaFormats.erase(spaFormats.begin());
    }
    const std::vector<FrameRates> rates = RatesOf(object);
    const std::vector<spa_rectangle> sizes = SizesOf(object);
    for (uint32_t spaFormat : spaFormats) {
        const OSType pixelFormat =
            subtype == SPA_MEDIA_SUBTYPE_mjpg ? kDecodedFormat : PixelFormatOfSpa(spaFormat);
        if (pixelFormat == 0)
            continue;
        for (const spa_rectangle& size : sizes) {
            NodeFormat entry;
            entry.mediaSubtype = subtype;
            entry.spaFormat = spaFormat;
            entry.format.kind = MediaKind::Video;
            entry.format.formatType = pixelFormat;
            entry.format.width = size.width;
            entry.format.height = size.height;
            entry.format.rates = rates;
            entry.format.frameRate = FastestRate(rates);
            formats.push_back(entry);
        }
    }
}

// How a sample format sits in memory, for the interleaved formats this backend delivers; a
// planar format is asked for as its interleaved twin (the stream's converter interleaves).
bool SoundLayout(uint32_t& spaFormat, AudioStreamBasicDescription& d) {
    switch (spaFormat) {
    case SPA_AUDIO_FORMAT_S16P:
        spaFormat = SPA_AUDIO_FORMAT_S16_LE;
        break;
    case SPA_AUDIO_FORMAT_S32P:
        spaFormat = SPA_AUDIO_FORMAT_S32_LE;
        break;
    case SPA_AUDIO_FORMAT_S24P:
        spaFormat = SPA_AUDIO_FORMAT_S24_LE;
        break;
    case SPA_AUDIO_FORMAT_F32P:
        spaFormat = SPA_AUDIO_FORMAT_F32_LE;
        break;
    case SPA_AUDIO_FORMAT_U8P:
        spaFormat = SPA_AUDIO_FORMAT_U8;
        break;
    default:
        break;
    }
    const UInt32 packedSigned = kAudioFormatFlagIsSignedInteger | kAudioFormatFlagIsPacked;
    switch (spaFormat) {
    case SPA_AUDIO_FORMAT_U8:
        d.mFormatFlags = kAudioFormatFlagIsPacked, d.mBitsPerChannel = 8, d.mBytesPerFrame = 1;
        return true;
    case SPA_AUDIO_FORMAT_S16_LE:
        d.mFormatFlags = packedSigned, d.mBitsPerChannel = 16, d.mBytesPerFrame = 2;
        return true;
    case SPA_AUDIO_FORMAT_S24_LE: // three bytes a sample
        d.mFormatFlags = packedSigned, d.mBitsPerChannel = 24, d.mBytesPerFrame = 3;
        return true;
    case SPA_AUDIO_FORMAT_S24_32_LE: // 24 bits in the low part of four bytes
        d.mFormatFlags = kAudioFormatFlagIsSignedInteger, d.mBitsPerChannel = 24,
        d.mBytesPerFrame = 4;
        return true;
    case SPA_AUDIO_FORMAT_S32_LE:
        d.mFormatFlags = packedSigned, d.mBitsPerChannel = 32, d.mBytesPerFrame = 4;
        return true;
    case SPA_AUDIO_FORMAT_F32_LE:
        d.mFormatFlags = kAudioFormatFlagIsFloat | kAudioFormatFlagIsPacked, d.mBitsPerChannel = 32,
        d.mBytesPerFrame = 4;
        return true;
    default:
        return false;
    }
}

void ParseSound(const spa_pod_object* object, std::vector<NodeFormat>& formats) {
    NodeFormat entry;
    entry.mediaSubtype = SPA_MEDIA_SUBTYPE_raw;
    entry.spaFormat = DefaultValue<uint32_t>(object, SPA_FORMAT_AUDIO_format, SPA_TYPE_Id, 0);
    AudioStreamBasicDescription& d = entry.format.audio;
    if (!SoundLayout(entry.spaFormat, d))
        return;
    const int32_t rate = DefaultValue<int32_t>(object, SPA_FORMAT_AUDIO_rate, SPA_TYPE_Int, 0);
    const int32_t channels =
        DefaultValue<int32_t>(object, SPA_FORMAT_AUDIO_channels, SPA_TYPE_Int, 0);
    if (rate <= 0 || channels <= 0 || channels > 64)
        return;
    d.mSampleRate = rate;
    d.mFormatID = kAudioFormatLinearPCM;
    d.mChannelsPerFrame = UInt32(channels);
    d.mBytesPerFrame *= UInt32(channels);
    d.mBytesPerPacket = d.mBytesPerFrame;
    d.mFramesPerPacket = 1;
    entry.format.kind = MediaKind::Sound;
    entry.format.formatType = kAudioFormatLinearPCM;
    formats.push_back(entry);
}

} // namespace

OSType PixelFormatOfSpa(uint32_t spaVideoFormat) {
    for (const SpaPixelFormat& entry : kPixelFormats)
        if (entry.spa == spaVideoFormat)
            return entry.pixelFormat;
    return 0;
}

void ParseEnumFormat(const spa_pod* param, std::vector<NodeFormat>& formats) {
    if (param == nullptr || !spa_pod_is_object_type(param, SPA_TYPE_OBJECT_Format))
        return;
    const auto* object = reinterpret_cast<const spa_pod_object*>(param);
    const uint32_t type =
        DefaultValue<uint32_t>(object, SPA_FORMAT_mediaType, SPA_TYPE_Id, SPA_MEDIA_TYPE_unknown);
    const uint32_t subtype = DefaultValue<uint32_t>(object, SPA_FORMAT_mediaSubtype, SPA_TYPE_Id,
                                                    SPA_MEDIA_SUBTYPE_unknown);
    if (type == SPA_MEDIA_TYPE_video &&
        (subtype == SPA_MEDIA_SUBTYPE_raw || subtype == SPA_MEDIA_SUBTYPE_mjpg))
        ParseVideo(object, subtype, formats);
    else if (type == SPA_MEDIA_TYPE_audio && subtype == SPA_MEDIA_SUBTYPE_raw)
        ParseSound(object, formats);
}

const spa_pod* BuildFormat(spa_pod_builder& builder, const NodeFormat& chosen,
                           FrameInterval interval) {
    spa_pod_frame frame;
    spa_pod_builder_push_object(&builder, &frame, SPA_TYPE_OBJECT_Format, SPA_PARAM_EnumFormat);
    if (chosen.format.kind == MediaKind::Sound) {
        spa_pod_builder_add(
            &builder, SPA_FORMAT_mediaType, SPA_POD_Id(SPA_MEDIA_TYPE_audio),
            SPA_FORMAT_mediaSubtype, SPA_POD_Id(SPA_MEDIA_SUBTYPE_raw), SPA_FORMAT_AUDIO_format,
            SPA_POD_Id(chosen.spaFormat), SPA_FORMAT_AUDIO_rate,
            SPA_POD_Int(int(chosen.format.audio.mSampleRate)), SPA_FORMAT_AUDIO_channels,
            SPA_POD_Int(int(chosen.format.audio.mChannelsPerFrame)), 0);
        return static_cast<const spa_pod*>(spa_pod_builder_pop(&builder, &frame));
    }
    const spa_rectangle size{uint32_t(chosen.format.width), uint32_t(chosen.format.height)};
    spa_pod_builder_add(&builder, SPA_FORMAT_mediaType, SPA_POD_Id(SPA_MEDIA_TYPE_video),
                        SPA_FORMAT_mediaSubtype, SPA_POD_Id(chosen.mediaSubtype),
                        SPA_FORMAT_VIDEO_size, SPA_POD_Rectangle(&size), 0);
    if (chosen.mediaSubtype == SPA_MEDIA_SUBTYPE_raw)
        spa_pod_builder_add(&builder, SPA_FORMAT_VIDEO_format, SPA_POD_Id(chosen.spaFormat), 0);
    if (!interval.IsEmpty()) {
        const spa_fraction rate{interval.denominator, interval.numerator};
        spa_pod_builder_add(&builder, SPA_FORMAT_VIDEO_framerate, SPA_POD_Fraction(&rate), 0);
    }
    return static_cast<const spa_pod*>(spa_pod_builder_pop(&builder, &frame));
}

} // namespace platform::pipewire
