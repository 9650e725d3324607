// The host's choice of what a device's recordings are encoded as, by codec name.
#include <strings.h>

#include "tavixdevice.h"

namespace {

// The entry of names whose name matches, without case; null for none. NULL and "" are
// entries[0], the default.
template <typename Entry, size_t Count>
const Entry* Named(const Entry (&entries)[Count], const char* name) {
    if (name == nullptr || name[0] == 0)
        return &entries[0];
    for (const Entry& entry : entries)
        if (entry.name[0] != 0 && strcasecmp(entry.name, name) == 0)
            return &entry;
    return nullptr;
}

struct VideoName {
    const char* name;
    MovieVideoCodec codec;
};
constexpr VideoName kVideoCodecs[] = {{"", MovieVideoCodec::Automatic},
                                      {"h264", MovieVideoCodec::H264},
                                      {"ffv1", MovieVideoCodec::FFV1},
                                      {"mjpeg", MovieVideoCodec::MJPEG}};

struct SoundName {
    const char* name;
    MovieSoundCodec codec;
};
constexpr SoundName kSoundCodecs[] = {
    {"", MovieSoundCodec::Automatic}, {"aac", MovieSoundCodec::AAC}, {"pcm", MovieSoundCodec::PCM}};

} // namespace

bool TavixDeviceSetRecordingOptions(unsigned long handle, const char* videoCodec, int quality,
                                    const char* audioCodec) {
    TavixDevice* device = TavixDevice::GetDevice(handle);
    const VideoName* video = Named(kVideoCodecs, videoCodec);
    const SoundName* sound = Named(kSoundCodecs, audioCodec);
    if (device == nullptr || video == nullptr || sound == nullptr || quality < -1 || quality > 51)
        return false;
    // The rate factor is H.264's; the default codec is H.264 too.
    const bool h264 =
        video->codec == MovieVideoCodec::Automatic || video->codec == MovieVideoCodec::H264;
    if (quality >= 0 && !h264)
        return false;
    device->RecordingEncoding = MovieEncoding{video->codec, quality, sound->codec};
    return true;
}
