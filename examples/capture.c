/* A plain-C host of the capture interface: lists the devices, prints the test camera's formats,
   captures two seconds from "Tavix Test Camera" with "Tavix Test Microphone" as its companion
   sound device, and prints how many frames and sample frames arrived. */
#define _POSIX_C_SOURCE 200809L /* nanosleep */

#include <stdio.h>
#include <time.h>

#include "llib/mac/tavix.h"

struct Counts {
    unsigned long frames;
    unsigned long sampleFrames;
    unsigned long width, height;
};

static bool PrintDevice(const char* name, void* context) {
    (void)context;
    printf("device: %s\n", name);
    return true;
}

static bool PrintFormat(const TavixDeviceFormat_C* format, bool isVideo, void* context) {
    (void)context;
    if (isVideo)
        printf("format: video %c%c%c%c %u x %u\n", (char)(format->dwFormat >> 24),
               (char)(format->dwFormat >> 16), (char)(format->dwFormat >> 8),
               (char)format->dwFormat, format->dwWidth, format->dwHeight);
    else
        printf("format: audio 0x%08x\n", format->dwFormat);
    return true;
}

/* Runs on the library's capture thread; the data is the address of the counters. */
static void OnFrame(const unsigned char* pixels, unsigned long pixelFormat, unsigned long width,
                    unsigned long height, unsigned long bytesPerRow, const SMPTETime* time,
                    long data) {
    struct Counts* counts = (struct Counts*)data;
    (void)pixels;
    (void)pixelFormat;
    (void)bytesPerRow;
    (void)time;
    counts->frames++;
    counts->width = width;
    counts->height = height;
}

static void OnSound(const unsigned char* samples, unsigned int formatFlags,
                    unsigned long sampleRate, unsigned long channels, unsigned long bytesPerSample,
                    unsigned long sampleFrames, long data) {
    struct Counts* counts = (struct Counts*)data;
    (void)samples;
    (void)formatFlags;
    (void)sampleRate;
    (void)channels;
    (void)bytesPerSample;
    counts->sampleFrames += sampleFrames;
}

int main(void) {
    struct Counts video = {0, 0, 0, 0}, sound = {0, 0, 0, 0};
    struct timespec twoSeconds = {2, 0};
    unsigned long camera;
    bool started;

    TavixDeviceEnumerateWithCallBack(PrintDevice, NULL, TavixDeviceMediaTypeAny, 0);
    camera = TavixDeviceGet("Tavix Test Camera", TavixDeviceMediaTypeVideo);
    if (camera == 0 || !TavixDeviceOpen(camera)) {
        fprintf(stderr, "no test camera\n");
        return 1;
    }
    TavixDeviceFormatEnumerateWithCallBack(camera, PrintFormat, NULL);
    /* 16-bit stereo at 48 kHz: flags 12 are signed, packed integers. */
    started = TavixDeviceStartCaptureWithAudioDevice(camera, "Tavix Test Microphone", OnFrame,
                                                     (long)&video, 0, 0, 0, OnSound, (long)&sound,
                                                     12, 48000, 2, 2, NULL);
    if (!started) {
        fprintf(stderr, "capture did not start\n");
        return 1;
    }
    nanosleep(&twoSeconds, NULL);
    TavixDeviceStopCapture(camera);
    TavixDeviceClose(camera);
    TavixDeviceRelease(camera);
    printf("frames: %lu (%lu x %lu)\n", video.frames, video.width, video.height);
    printf("sample frames: %lu\n", sound.sampleFrames);
    return video.frames > 0 && sound.sampleFrames > 0 ? 0 : 1;
}
