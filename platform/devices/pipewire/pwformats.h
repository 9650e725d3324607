// The formats of PipeWire nodes: what their EnumFormat params offer, in the platform's terms,
// and the format pod a capture stream asks for.
#pragma once

#include <spa/pod/builder.h>
#include <spa/pod/pod.h>

#include <vector>

#include "platform/devicebackend.h"

namespace platform::pipewire {

// One format a node offers: as the host sees it, and what the stream is asked for to get it.
struct NodeFormat {
    DeviceFormat format;
    uint32_t mediaSubtype = 0; // SPA_MEDIA_SUBTYPE_raw or SPA_MEDIA_SUBTYPE_mjpg
    uint32_t spaFormat = 0;    // SPA_VIDEO_FORMAT_* or SPA_AUDIO_FORMAT_*; 0 for Motion-JPEG
};

// The platform's pixel format for a raw SPA video format; 0 for one this backend cannot deliver.
OSType PixelFormatOfSpa(uint32_t spaVideoFormat);

// Appends what one EnumFormat param offers. Pictures: one entry per pixel format and size, a
// choice of formats or sizes (an enumeration, or a range: its default, its ends and the common
// sizes inside it) giving several, with the param's frame rates (single, a list, or a range);
// Motion-JPEG as the format it is decoded into, as V4L2 cameras list it. Sound: its default
// sample format (interleaved), rate and channel count. Formats this backend cannot deliver are
// left out.
void ParseEnumFormat(const spa_pod* param, std::vector<NodeFormat>& formats);

// The format a capture stream asks for: `chosen`, at `interval` for pictures when not empty.
const spa_pod* BuildFormat(spa_pod_builder& builder, const NodeFormat& chosen,
                           FrameInterval interval);

} // namespace platform::pipewire
