/* tavix: a flat C interface to video and audio capture devices (cameras, sound inputs, tape
   decks).

   A host enumerates the devices, looks one up by display name and media type and receives a
   handle, opens it, learns its formats, starts capture with plain callbacks that receive raw
   frames (with SMPTE timecode) and converted PCM sound, optionally records to a movie file at
   the same time, drives a tape deck's transport, stops capture and releases the handle.

   Handles: a handle is an opaque unsigned long; 0 is never valid. Every function that takes a
   handle checks it first and, for an invalid one, returns false (0 for
   TavixDeviceGetTransportMode, nothing for TavixDeviceSetTransportMode) and does nothing else.
   A handle is the address of one of 64 device slots. Once its last reference is released the
   slot is free, and a later TavixDeviceGet may give it, under the same number, to another
   device: the old handle then acts on that device, and the library cannot tell the two apart.
   A host forgets a handle when it releases its last reference.

   Threads: any thread may call any function. TavixDeviceGet, TavixDeviceRetain and
   TavixDeviceRelease are serialised by the library; the other functions are not, so a host
   serialises its calls per device and never drops a device's last reference while another of
   its threads still uses the handle. Threads other than the one that loaded the library wrap
   their calls in TavixThreadInit / TavixThreadDestroy.

   Callbacks run on the library's capture threads, one call at a time per device and callback,
   holding that callback's lock. Pointers handed to a callback are valid only during the call.
   A video or audio callback may call, for its own device and on its own thread:
   - TavixDeviceStopCapture and TavixDeviceStopRecording: no callback of that capture starts
     afterwards, and the running call returns normally; the recording is closed;
   - TavixDeviceClose and then TavixDeviceRelease of the last reference (after StopCapture):
     the handle is invalid once Release returns, also for the rest of the call;
   - TavixDeviceInvalidateCaptureVideoCallBack and TavixDeviceInvalidateCaptureAudioCallBack;
   - TavixDeviceStartCapture (and ...WithAudioDevice) with another callback, after
     StopRecording or StopCapture in the same call: the new callback runs on a capture thread
     of its own, never inside the current call;
   - the queries (TavixDeviceIsCapturing, TavixDeviceIsOpened, TavixDeviceGetSMPTETime,
     TavixDeviceGetRecordingFrameCounts, TavixDeviceGetLastError, TavixDeviceGetListError, the
     transport calls).
   Everything the running call uses stays valid until it returns. A callback must not wait for
   another thread that calls into the library for the same device (invalidating, reading the
   timecode, stopping), which waits for the callback in turn. For the same reason a callback
   must not call TavixDeviceGet (or another look-up that returns a handle), TavixDeviceRetain
   or TavixDeviceRelease, for any device, while another thread may release the last reference
   of the callback's device before stopping its capture: that release holds the library's
   handle lock while it waits for the running callback to return, and those calls wait for
   that lock.

   Usable from C (C99) and C++. */
#ifndef LLIB_MAC_TAVIX_H
#define LLIB_MAC_TAVIX_H

#include "llib/mac/smptetime.h"

#ifdef __cplusplus
#include <cstddef>
extern "C" {
#else
#include <stdbool.h>
#include <stddef.h>
#endif

#if defined(__GNUC__)
#define TAVIX_EXPORT __attribute__((visibility("default")))
#else
#define TAVIX_EXPORT
#endif

/* Both enumerations are 32-bit ints. C++ is told so, so that any value a C host passes (an
   unknown transport mode such as 42) is a valid value of the type. */
#ifdef __cplusplus
#define TAVIX_INT_ENUM : int
#else
#define TAVIX_INT_ENUM
#endif

/* Media types. Sound also matches muxed devices (a DV deck's sound); video also matches muxed
   devices; muxed needs system version 10.5 or later. */
typedef enum TavixDeviceMediaType TAVIX_INT_ENUM {
    TavixDeviceMediaTypeAny = 0,
    TavixDeviceMediaTypeSound = 1,
    TavixDeviceMediaTypeVideo = 2,
    TavixDeviceMediaTypeMuxed = 3
} TavixDeviceMediaType;

/* Tape transport modes. */
typedef enum TavixDeviceTransportMode TAVIX_INT_ENUM {
    TavixDeviceTransportModeStop = 0,
    TavixDeviceTransportModePlay = 1,
    TavixDeviceTransportModeRewind = 2,
    TavixDeviceTransportModeFastForward = 3,
    TavixDeviceTransportModePlayFastReverse = 4,
    TavixDeviceTransportModePlayFastForward = 5,
    TavixDeviceTransportModeUnavailable = 6
} TavixDeviceTransportMode;

/* Receives every frame: base address of the pixels (read in place, valid during the call),
   Core Video pixel format code ('2vuy', 'BGRA', ...; 4:2:0 formats keep their chroma planes
   after the luma rows), width and height in pixels, bytes per row, the frame's timecode or
   NULL, and the data given to the start call. */
typedef void (*TavixDeviceVideoCallBack)(const unsigned char* pixels, unsigned long pixelFormat,
                                         unsigned long width, unsigned long height,
                                         unsigned long bytesPerRow, const SMPTETime* time,
                                         long data);

/* Receives converted sound: interleaved samples (valid during the call), Core Audio format
   flags (1 float, 2 big-endian, 4 signed integer, 8 packed), sample rate in Hz, channels,
   bytes per sample of one channel, sample frames in the buffer, and the data given to the
   start call. */
typedef void (*TavixDeviceAudioCallBack)(const unsigned char* samples, unsigned int formatFlags,
                                         unsigned long sampleRate, unsigned long channels,
                                         unsigned long bytesPerSample, unsigned long sampleFrames,
                                         long data);

/* A format as TavixDeviceFormatEnumerate reports it. */
typedef struct TavixDeviceFormat_C {
    unsigned int dwFormat; /* pixel format (video) or audio format type (sound) */
    unsigned int dwWidth;  /* 0 for sound */
    unsigned int dwHeight; /* 0 for sound */
    unsigned int dwBytesPerRow;
} TavixDeviceFormat_C;

/* True when any device handle is in use; TavixDumpUsedDevices answers the same. */
TAVIX_EXPORT bool TavixHasUsedDevices(void);
TAVIX_EXPORT bool TavixDumpUsedDevices(void);

/* Looks a device up by UTF-8 display name (ASCII letters compared without case) and media type
   and returns a handle holding one reference; 0 for a null or empty name, an unknown device,
   or when all 64 handles are in use. Pair with TavixDeviceRelease. */
TAVIX_EXPORT unsigned long TavixDeviceGet(const char* name, TavixDeviceMediaType type);
/* Adds a reference; false for an invalid handle. */
TAVIX_EXPORT bool TavixDeviceRetain(unsigned long device);
/* Drops a reference; the last one frees the handle. While the device captures, the count is
   not lowered (the last reference only detaches the callbacks and ends the recording): stop
   capture first. False only for an invalid handle. */
TAVIX_EXPORT bool TavixDeviceRelease(unsigned long device);

/* Opens the device (true when it is open afterwards) / closes it and its companion audio
   device (always true for a valid handle). */
TAVIX_EXPORT bool TavixDeviceOpen(unsigned long device);
TAVIX_EXPORT bool TavixDeviceClose(unsigned long device);
TAVIX_EXPORT bool TavixDeviceIsOpened(unsigned long device);
/* IsConnected is false for a device that is gone (unplugged, unregistered by its driver), and
   also while a capture holds a device whose driver cannot stream (it refused to start, or its
   stream failed for good): frames stop either way, and the host stops capture. Once stopped,
   a device that is still there reports itself connected again and can capture anew. */
TAVIX_EXPORT bool TavixDeviceIsConnected(unsigned long device);
TAVIX_EXPORT bool TavixDeviceIsUsedByAnotherApplication(unsigned long device);
TAVIX_EXPORT bool TavixDeviceHasMediaType(unsigned long device, TavixDeviceMediaType type);

/* Drops the companion audio device (stopping the whole session); false when the session did
   not stop or the companion was named but never found. */
TAVIX_EXPORT bool TavixDeviceCloseAudioDevice(unsigned long device);
/* The same for every handle; true when every one succeeded. */
TAVIX_EXPORT bool TavixDeviceCloseAllAudioDevices(void);

/* Starts capture on an open device. videoCallBack / audioCallBack may be NULL (no such
   output). pixelFormat, width, height: 0 lets the device choose; the device streams the size
   asked for when it offers that size in any pixel format (the output converts the format), else
   its nearest size, scaled for the output. Sound: format flags (0: 12, signed packed integers),
   rate (0: 44100), channels (0: 2), bytes per sample (0: 2). outputFilePath: a movie file to
   record into (NULL: none), its container set by its extension: .mov, .mp4 or .m4v, .mkv, .avi;
   it holds the device's pictures, so it has the size asked for when the device offers it.
   False when the device input, the video output or the recording could not be added (a running
   capture is then torn down; nothing runs afterwards): a video output is refused for a pixel format
   or a size (over 16384 pixels a side) the library cannot deliver, or on a device without pictures;
   a recording for a file that cannot be created (a missing folder, no permission, a folder, an
   empty path, an extension not listed). A sound wish the library cannot meet (over 32 channels, a
   rate over 1 MHz, samples that are neither 1- to 4-byte integers nor 4- or 8-byte floats), or
   sound from a device without any, is refused too, but capture goes on without sound and the start
   answers true: TavixDeviceGetLastError tells the host. A file that fails while being written (a
   full disk) ends the recording without disturbing capture; what was written before plays. A second
   start while capturing keeps the existing callbacks, and its file path is ignored while a
   recording runs. A refused start keeps the parts it built for the next start, which offers
   them again: a refused video output with its wishes, unless the next start gives new ones. */
TAVIX_EXPORT bool TavixDeviceStartCapture(unsigned long device,
                                          TavixDeviceVideoCallBack videoCallBack,
                                          long videoCallBackData, unsigned long pixelFormat,
                                          unsigned long width, unsigned long height,
                                          TavixDeviceAudioCallBack audioCallBack,
                                          long audioCallBackData, unsigned int sampleFormatFlags,
                                          unsigned long sampleRate, unsigned long channels,
                                          unsigned long bytesPerSample, const char* outputFilePath);
/* The same, taking sound from a second device named audioDeviceName (false for a NULL or
   empty name) when the device itself has no sound. */
TAVIX_EXPORT bool TavixDeviceStartCaptureWithAudioDevice(
    unsigned long device, const char* audioDeviceName, TavixDeviceVideoCallBack videoCallBack,
    long videoCallBackData, unsigned long pixelFormat, unsigned long width, unsigned long height,
    TavixDeviceAudioCallBack audioCallBack, long audioCallBackData, unsigned int sampleFormatFlags,
    unsigned long sampleRate, unsigned long channels, unsigned long bytesPerSample,
    const char* outputFilePath);
/* Detaches the callbacks, stops and tears the session down; the movie file is closed. */
TAVIX_EXPORT bool TavixDeviceStopCapture(unsigned long device);
/* Detaches the callbacks and ends the recording; the session keeps running. */
TAVIX_EXPORT bool TavixDeviceStopRecording(unsigned long device);
TAVIX_EXPORT bool TavixDeviceIsCapturing(unsigned long device);
/* Counts the pictures of the device's current recording, or of its last one once it has ended
   (StopCapture, StopRecording): *recorded the pictures written to the file, *notRecorded those
   that came while the file was being written but are not in it. The recorder drops whole
   pictures rather than hold up capture when its encoder falls behind (once 60 wait for it),
   writes none after the file failed (a full disk: the pictures of the last second before the
   failure may be missing from the file too), and keeps only pictures of the first picture's
   size. Pictures the callbacks saw before the file started are in neither count: a recording
   with sound starts once both pictures and sound have come. While recording, the pictures
   still waiting for the encoder are in neither count; once the recording has ended, every
   picture of it is in one of them. Either pointer may be NULL. False, leaving both untouched,
   for an invalid handle or a device that has not started a recording since the handle was
   got; the counts go with the handle's last reference. A query: a callback may call it for its
   own device. An addition to the original interface. */
TAVIX_EXPORT bool TavixDeviceGetRecordingFrameCounts(unsigned long device, unsigned long* recorded,
                                                     unsigned long* notRecorded);

/* Cuts a callback off: clears the callback when it matches, and the data when it matches;
   true when either did. After a true answer no call with the cleared callback runs or starts.
   False when the device is not capturing. */
TAVIX_EXPORT bool TavixDeviceInvalidateCaptureVideoCallBack(unsigned long device,
                                                            TavixDeviceVideoCallBack callBack,
                                                            long callBackData);
TAVIX_EXPORT bool TavixDeviceInvalidateCaptureAudioCallBack(unsigned long device,
                                                            TavixDeviceAudioCallBack callBack,
                                                            long callBackData);

/* Tape transport. GetTransportMode returns TavixDeviceTransportModeUnavailable for a device
   without transport controls (and 0 for an invalid handle). */
TAVIX_EXPORT bool TavixDeviceIsTransportAvailable(unsigned long device);
TAVIX_EXPORT TavixDeviceTransportMode TavixDeviceGetTransportMode(unsigned long device);
TAVIX_EXPORT void TavixDeviceSetTransportMode(unsigned long device, TavixDeviceTransportMode mode);
/* Copies the timecode of the latest frame (time may be NULL); false when capture is not
   running or the latest frame had none. */
TAVIX_EXPORT bool TavixDeviceGetSMPTETime(unsigned long device, SMPTETime* time);
/* The timecode in milliseconds (frames scaled by the nominal rate of mType); 0 for NULL. */
TAVIX_EXPORT unsigned long TavixDeviceSMPTE2Milliseconds(const SMPTETime* time);

/* Per-thread scope for threads other than the main thread; TavixThreadDestroy(NULL) does
   nothing. */
TAVIX_EXPORT void* TavixThreadInit(void);
TAVIX_EXPORT void TavixThreadDestroy(void* pool);
/* True on the thread that loaded the library. */
TAVIX_EXPORT bool TavixIsMainThread(void);

/* For C hosts: enumeration through a function and a context. The function returns false to
   stop. Names are valid during the call. flags bit 0: also report devices that are not
   connected. */
typedef bool (*TavixDeviceEnumerateCallBack)(const char* name, void* context);
TAVIX_EXPORT void TavixDeviceEnumerateWithCallBack(TavixDeviceEnumerateCallBack callBack,
                                                   void* context, TavixDeviceMediaType type,
                                                   unsigned int flags);
/* Reports audio formats (width and height 0) then video formats through one function; false
   as TavixDeviceFormatEnumerate. */
typedef bool (*TavixDeviceFormatEnumerateCallBack)(const TavixDeviceFormat_C* format, bool isVideo,
                                                   void* context);
TAVIX_EXPORT bool
TavixDeviceFormatEnumerateWithCallBack(unsigned long device,
                                       TavixDeviceFormatEnumerateCallBack callBack, void* context);

/* Additions to the original interface: devices that come and go, and their lasting ids.

   A device's unique id is a UTF-8 string that names the same device across runs, reboots and
   renumbered device nodes: a camera's is built from where it sits (its bus, the port it is
   plugged into) and its place among that device's capture nodes, not from its /dev/videoN
   number; a sound input's from its card's name, not its number. */

/* Told of each device that arrives or leaves: its UTF-8 display name and unique id (both valid
   during the call), its media type (TavixDeviceMediaTypeVideo, ...Sound or ...Muxed, never
   ...Any), true when it arrived and false when it left, and the context given with the
   callback. */
typedef void (*TavixDeviceChangeCallBack)(const char* name, const char* uniqueId,
                                          TavixDeviceMediaType type, bool arrived, void* context);
/* Sets the callback told when capture devices (cameras, sound inputs, decks) arrive or leave;
   NULL stops telling. The devices present when a callback is set from none are not reported;
   a new callback replacing another takes over where it left off. The library does not poll: it
   waits for the system's device events (the kernel's, with or without udevd) and then lists the
   devices again, so a device is reported once it can be listed; where udevd gives a new node
   its permissions late, that can be two seconds after it appeared. Once an arrival has been
   told, TavixDeviceGet and the enumerations find the device; once a departure has been told,
   they no longer list it as connected (a handle to it stays valid and reports that it is not
   connected; its capture delivers nothing more).
   Calls come on a library thread of their own, one at a time, in the order the changes were
   seen, holding the callback's lock, as the frame callbacks do. The callback may call any
   function of the library, this one included (to stop, or to set another callback: the running
   call then returns normally); it must not wait for another thread that is calling
   TavixDeviceSetChangeCallBack, which waits for the callback in turn. Outside the callback,
   this returns once no call to the previous callback runs, so the previous context may be
   freed then. True when set or cleared; false when the library could not start its thread (no
   callback is set then). An addition to the original interface. */
TAVIX_EXPORT bool TavixDeviceSetChangeCallBack(TavixDeviceChangeCallBack callBack, void* context);

/* Enumeration with unique ids: the display name and unique id (valid during the call), the
   device's media type (Video, Sound or Muxed), whether it is connected, and the context. The
   function returns false to stop. type and flags select as for TavixDeviceEnumerateWithCallBack
   (flags bit 0: also devices that are not connected). Nothing happens for a NULL function. An
   addition to the original interface. */
typedef bool (*TavixDeviceEnumerateWithUniqueIDsCallBack)(const char* name, const char* uniqueId,
                                                          TavixDeviceMediaType type, bool connected,
                                                          void* context);
TAVIX_EXPORT void
TavixDeviceEnumerateWithUniqueIDs(TavixDeviceEnumerateWithUniqueIDsCallBack callBack, void* context,
                                  TavixDeviceMediaType type, unsigned int flags);

/* Looks a device up by unique id, or, given a path starting with '/' (/dev/video2, or a link
   to it such as /dev/v4l/by-id/...), the camera at that node now (the first input of a node
   with several). Returns a handle holding one reference, as TavixDeviceGet does (the same
   handle when one to that device is in use); 0 for a NULL or empty string, a device that is not
   there, a path that is no camera, or when all 64 handles are in use. Any thread; serialised
   with TavixDeviceGet. An addition to the original interface. */
TAVIX_EXPORT unsigned long TavixDeviceGetWithUniqueID(const char* uniqueIdOrNodePath);
/* Copies the device's unique id, with its terminating 0, into buffer. False for an invalid
   handle, a NULL buffer, or a size too small for the id (buffer then holds an empty string when
   size is not 0). A query: a callback may call it for its own device. An addition to the
   original interface. */
TAVIX_EXPORT bool TavixDeviceGetUniqueID(unsigned long device, char* buffer, size_t size);

/* Additions to the original interface: frame rates. */

/* Frame rates a device offers at one format and size. Devices count rates as the time between
   two pictures, and so does this record, exactly: 1/30 s for 30 frames per second, 1001/30000 s
   for 29.97. One rate when the longest interval equals the shortest; otherwise a range: every
   interval from the shortest to the longest in steps of the step's length counted from the
   shortest, or any interval between them when the step is 0/0. Ranges step in time per picture,
   as drivers state them, so their rates are not evenly spaced. */
typedef struct TavixFrameRate_C {
    double framesPerSecond;    /* the fastest rate: the only one, or the range's top */
    double minFramesPerSecond; /* the slowest rate: equal to framesPerSecond for one rate */
    unsigned int dwIntervalNumerator, dwIntervalDenominator;       /* the shortest interval */
    unsigned int dwMaxIntervalNumerator, dwMaxIntervalDenominator; /* the longest interval */
    unsigned int dwStepNumerator, dwStepDenominator; /* a range's step; 0/0 for any or none */
} TavixFrameRate_C;

/* Receives one entry (valid during the call); returns false to stop. */
typedef bool (*TavixFrameRateEnumerateCallBack)(const TavixFrameRate_C* rate, void* context);

/* Reports the frame rates the device offers for capture with this pixel format, width and
   height, the values StartCapture takes (0 lets the device choose, as there; a format and size
   TavixDeviceFormatEnumerate reported is the usual question): the rates of the format and size
   the device streams in for that wish, so a size it reaches only by scaling gets the rates of
   the size scaled from. Entries come in the device's order, the rate a capture takes when
   asked for none first for the test devices. The device need not be open and is not probed.
   False, without a call, for an invalid handle, a NULL callBack, a device without pictures, or
   one whose formats cannot be read now (another program holds it); true otherwise, with no
   call when the device states no rates. The callback runs on the
   calling thread; the host serialises this call per device as the others. */
TAVIX_EXPORT bool TavixDeviceFormatEnumerateFrameRates(unsigned long device,
                                                       unsigned long pixelFormat,
                                                       unsigned long width, unsigned long height,
                                                       TavixFrameRateEnumerateCallBack callBack,
                                                       void* context);

/* Sets the rate, in frames per second, that the device is asked for when capture with a video
   callback starts (TavixDeviceStartCapture and ...WithAudioDevice): the offered rate nearest to
   it is used (compared in frames per second; in a range, the nearest step), and
   TavixDeviceGetCaptureFrameRate tells which. 0, the value of a handle just got, lets the device
   choose. The wish stays with the device until changed or until its last reference goes; a
   capture already running keeps its rate until it is stopped and started again. Sound is not
   affected. False, changing nothing, for an invalid handle or a rate that is negative or not
   finite. */
TAVIX_EXPORT bool TavixDeviceSetCaptureFrameRate(unsigned long device, double framesPerSecond);

/* The nominal rate of the pictures the running capture delivers, in frames per second
   (29.97002997... for 1001/30000 s): what the device agreed to, as the latest picture states
   it. False, leaving *framesPerSecond untouched, for an invalid handle, a NULL pointer, a
   device not capturing pictures, before the first picture of the capture has come (wait for
   the first video callback), or when the device does not state its rate. A query: a callback
   may call it for its own device. */
TAVIX_EXPORT bool TavixDeviceGetCaptureFrameRate(unsigned long device, double* framesPerSecond);

/* A sound format as the device delivers it, before the conversion the audio callback gets. */
typedef struct TavixSoundFormat_C {
    double sampleRate;             /* in Hz */
    unsigned int dwFormat;         /* the audio format type TavixDeviceFormatEnumerate reports */
    unsigned int dwFormatFlags;    /* Core Audio format flags, as the audio callback's */
    unsigned int dwChannels;       /* channels per sample frame */
    unsigned int dwBitsPerChannel; /* bits of one channel's sample */
} TavixSoundFormat_C;

/* Receives one sound format (valid during the call); returns false to stop. */
typedef bool (*TavixSoundFormatEnumerateCallBack)(const TavixSoundFormat_C* format, void* context);

/* Reports the sound formats the device delivers: a sound input's, a deck's sound. Whatever they
   are, the audio callback receives sound converted to what StartCapture asked for. The device
   need not be open. False, without a call, for an invalid handle or a NULL callBack; true
   otherwise, with no call for a device without sound. The callback runs on the calling thread;
   the host serialises this call per device as the others. */
TAVIX_EXPORT bool TavixDeviceEnumerateSoundFormats(unsigned long device,
                                                   TavixSoundFormatEnumerateCallBack callBack,
                                                   void* context);

/* Additions to the original interface: why a capture or a recording failed. */

/* The device's last capture or recording error, as UTF-8 sentences a host can show: what the
   last TavixDeviceStartCapture (or ...WithAudioDevice) call was refused (the device input, the
   video output, the recording, or the sound: a start that answered true with an error
   captures without what the error names), then why the current or the last recording failed
   while it was written (a full disk), then why the last control change failed (a control
   change that succeeds clears that part). Copies at most size bytes into message,
   cut between whole characters and always terminated when size is not 0; message may be NULL
   when size is 0, to ask only whether there is an error. True when there is one; false, with
   message empty, when there is none or the handle is invalid. Each start clears what came
   before it, except the failure of a recording that still runs; the text goes with the
   handle's last reference. Any thread, under the per-device rule; a query: a callback may call
   it for its own device. An addition to the original interface. */
TAVIX_EXPORT bool TavixDeviceGetLastError(unsigned long device, char* message, size_t size);
/* Why the last listing of the devices (an enumeration or a look-up, or the listing the library
   makes itself when devices change) left out devices it should have shown, as UTF-8 sentences a
   host can show: in a sandbox, or where TAVIX_CAMERA_PORTAL=1 sends the library through the
   desktop's camera portal, that there is no session bus or no portal, that the portal refused
   access or did not answer in time; the PipeWire devices are missing from the list then. Copies at
   most size bytes into message, cut between whole characters and always terminated when size is not
   0; message may be NULL when size is 0, to ask only whether there is an error. True when there is
   one; false, with message empty, when the last listing found nothing wrong or there was none yet.
   The text stays until the next listing. Any thread; a query: a callback may call it. An addition
   to the original interface. */
TAVIX_EXPORT bool TavixDeviceGetListError(char* message, size_t size);

/* Additions to the original interface: device controls.

   A control is one setting of a device that a host may read and change: a camera's brightness,
   contrast, exposure, focus, white balance, gain, zoom, power-line frequency, a sound input's
   capture volume. Each has a key of lower-case ASCII words joined by '_' that names it the same
   way on every device of its kind: brightness, contrast, saturation, hue, gain, gamma,
   sharpness, exposure, exposure_auto, focus, focus_auto, white_balance_temperature,
   white_balance_auto, zoom, pan, tilt, power_line_frequency, backlight_compensation; any other
   control's key is its driver's name in that form ("Test Pattern" is test_pattern). A device
   lists its controls in its driver's order; the test camera has some that change its picture,
   the test microphone and deck have none.

   Auto and manual pairs (exposure_auto and exposure, white_balance_auto and
   white_balance_temperature, focus_auto and focus) behave as the driver defines them: while the
   auto control is on, the manual one is inactive, and a driver may refuse it or keep the value
   for later. To set a manual value, turn the auto control off first, then set the value.

   The control calls may be made from any thread at any time, also while the device captures
   and from inside its callbacks (a change applies from the next picture); the library
   serialises them per device. The device need not be open. */

/* A control's kind (the numbers are V4L2's). */
typedef enum TavixControlType TAVIX_INT_ENUM {
    TavixControlTypeInteger = 1,
    TavixControlTypeBoolean = 2,    /* 0 or 1 */
    TavixControlTypeMenu = 3,       /* the value is the index of a menu item */
    TavixControlTypeButton = 4,     /* setting any value performs an action; no value to read */
    TavixControlTypeInteger64 = 5,  /* an integer beyond 32 bits */
    TavixControlTypeString = 7,     /* text: TavixDeviceGetControlText, ...SetControlText */
    TavixControlTypeIntegerMenu = 9 /* the value is the index of an item that holds a number */
} TavixControlType;

/* Control flags. */
enum {
    TavixControlFlagReadOnly = 1, /* can be read, never set */
    TavixControlFlagInactive = 2, /* has no effect now: its auto partner is on */
    TavixControlFlagVolatile = 4, /* the device changes the value itself (gain under auto gain) */
    TavixControlFlagWriteOnly = 8 /* an action: nothing to read */
};

/* One menu item. Menus may leave gaps: indices need not be contiguous. */
typedef struct TavixControlMenuItem_C {
    long long index;  /* the value that selects it */
    const char* name; /* UTF-8; an integer menu's number as decimal text */
    long long value;  /* an integer menu's number; the index for a text menu */
} TavixControlMenuItem_C;

/* A control as TavixDeviceEnumerateControls reports it; every pointer is valid during the call. */
typedef struct TavixControl_C {
    const char* key;  /* see above: brightness, exposure_auto, ... */
    const char* name; /* the driver's display name, UTF-8 */
    TavixControlType type;
    unsigned int flags; /* TavixControlFlag... */
    long long minimum, maximum, step, defaultValue;
    long long value;                    /* the current value; 0 for buttons and strings */
    const char* text;                   /* a string control's current value; "" for other kinds */
    const TavixControlMenuItem_C* menu; /* menuCount items (menus only; NULL otherwise) */
    unsigned int menuCount;
} TavixControl_C;

/* What a control change came to. */
typedef enum TavixControlResult TAVIX_INT_ENUM {
    TavixControlResultSet = 0,        /* done; the value set is reported back */
    TavixControlResultInvalid = 1,    /* an invalid handle, a NULL key or text */
    TavixControlResultUnknownKey = 2, /* the device has no control with that key */
    TavixControlResultReadOnly = 3,   /* the control cannot be set */
    TavixControlResultWrongType = 4,  /* text for a number control, a number for a string one */
    TavixControlResultInactive = 5,   /* refused while its auto partner is on */
    TavixControlResultBusy = 6,       /* another program or stream holds the control */
    TavixControlResultFailed = 7      /* the device refused otherwise, or is gone */
} TavixControlResult;

/* Receives one control (valid during the call); returns false to stop. */
typedef bool (*TavixControlEnumerateCallBack)(const TavixControl_C* control, void* context);

/* Reports the device's controls with their current values, on the calling thread. False,
   without a call, for an invalid handle, a NULL callBack, or a device whose controls cannot be
   read now (gone); true otherwise, with no call for a device without controls. An addition to
   the original interface. */
TAVIX_EXPORT bool TavixDeviceEnumerateControls(unsigned long device,
                                               TavixControlEnumerateCallBack callBack,
                                               void* context);

/* Reads a control's current value from the device (a volatile control's latest). False,
   leaving *value untouched, for an invalid handle, a NULL key or value, an unknown key, a
   string control, a button, or a device that cannot be read now. An addition to the original
   interface. */
TAVIX_EXPORT bool TavixDeviceGetControl(unsigned long device, const char* key, long long* value);

/* Sets a control. The one rule for values: a value outside [minimum, maximum] is clamped to the
   nearer end and a value off the step is rounded to the nearest step counted from minimum
   (halfway rounds up); a boolean takes any non-zero value as 1; a menu takes the nearest index
   it has (halfway: the lower); a button performs its action for any value. *valueSet (may be
   NULL) receives the value the device holds afterwards, which a driver may round further.
   TavixControlResultSet when set; otherwise the reason, with TavixDeviceGetLastError giving it
   as a sentence, and nothing changed. An addition to the original interface. */
TAVIX_EXPORT TavixControlResult TavixDeviceSetControl(unsigned long device, const char* key,
                                                      long long value, long long* valueSet);

/* A string control's text: copies at most size bytes into buffer, cut between whole characters
   and terminated when size is not 0. False, with buffer empty, for an invalid handle, a NULL
   key or buffer, an unknown key, a control that is not a string, or a device that cannot be
   read now. An addition to the original interface. */
TAVIX_EXPORT bool TavixDeviceGetControlText(unsigned long device, const char* key, char* buffer,
                                            size_t size);
/* Sets a control from UTF-8 text, as a person would type it: a string control takes the text
   (cut, between whole characters, to the control's maximum length); a number control a decimal
   integer; a boolean also on/off, true/false, yes/no; a menu an item's name compared without
   case, the name in key form ("aperture_priority_mode"), its first word when no other item
   starts with it ("manual" for "Manual Mode"), or an index or an integer menu's number.
   Numbers then follow TavixDeviceSetControl's rule. Results as TavixDeviceSetControl;
   TavixControlResultWrongType for text that names no value of the control,
   TavixControlResultInvalid also for text that is not valid UTF-8. An addition to the original
   interface. */
TAVIX_EXPORT TavixControlResult TavixDeviceSetControlText(unsigned long device, const char* key,
                                                          const char* text);

/* Told of a control whose value or flags changed: its key and new value (text: a string
   control's new text, "" otherwise; both valid during the call), its flags, and the context. */
typedef void (*TavixControlChangeCallBack)(const char* key, long long value, const char* text,
                                           unsigned int flags, void* context);
/* Sets the callback told of the device's control changes, where the device reports them: a
   volatile value the device changed (every change for the test camera; V4L2 drivers report
   what their control events report, not every change of a volatile value), a control whose
   flags changed because its auto partner changed, and changes made by this or another
   program. NULL stops telling. Calls come on a library thread of the device's own, one at a
   time, holding the callback's lock, as the frame callbacks do; the callback may call the
   control functions and the queries for its device. Outside the callback this returns once no
   call to the previous callback runs, so its context may be freed then. False for an invalid
   handle, or when the device cannot report changes (no callback is set then); true when set
   or cleared. The callback goes with the handle's last reference. An addition to the original
   interface. */
TAVIX_EXPORT bool TavixDeviceSetControlChangeCallBack(unsigned long device,
                                                      TavixControlChangeCallBack callBack,
                                                      void* context);

/* Additions to the original interface: what a recording is encoded as. */

/* Chooses how the device's next recordings encode pictures and sound. videoCodec: "h264",
   "ffv1" (lossless; .mkv and .mov hold it), "mjpeg" (Motion-JPEG: a Motion-JPEG camera's own
   JPEG pictures are stored unchanged, other pictures encoded), or NULL or "" for the
   default (H.264, kept as DV for a deck's DV picture). quality: H.264's constant rate factor
   from 0 (best, largest) to 51 (smallest), or -1 for the default, 23. audioCodec: "aac",
   "pcm" (16-bit; .mov and .mkv hold it), or NULL or "" for the default (PCM, AAC in .mp4).
   Names are compared without case. False, changing nothing, for an invalid handle, an unknown
   name, a quality outside -1 to 51, or a quality with a codec other than H.264. The choices
   take effect at the next TavixDeviceStartCapture (or ...WithAudioDevice) with a file path; a
   recording that runs keeps its own. That start is refused when the file's container cannot
   hold a chosen codec (an .mp4 file and FFV1 or PCM), TavixDeviceGetLastError saying so. The
   choices stay with the handle until set again and go with its last reference. Any thread,
   under the per-device rule. An addition to the original interface. */
TAVIX_EXPORT bool TavixDeviceSetRecordingOptions(unsigned long device, const char* videoCodec,
                                                 int quality, const char* audioCodec);

#ifdef __cplusplus
}

/* Host-implemented enumeration interfaces (C++). Neither has a virtual destructor. */
class ITavixDeviceEnumerator {
public:
    /* A device's UTF-8 display name, valid during the call; return false to stop. */
    virtual bool OnDevice(const char* name) = 0;
};

class ITavixDeviceFormatEnumerator {
public:
    virtual bool OnDeviceFormatAudio(unsigned long format) = 0;
    virtual bool OnDeviceFormatVideo(unsigned long format, unsigned long width,
                                     unsigned long height) = 0;
};

extern "C" {
/* Reports the display names of the devices with the media type; flags bit 0: also those that
   are not connected. A NULL enumerator does nothing. */
TAVIX_EXPORT void TavixDeviceEnumerate(ITavixDeviceEnumerator* enumerator,
                                       TavixDeviceMediaType type, unsigned int flags);
/* Reports the device's formats: audio formats first, then video formats, largest first. The
   first call for a device may run a short probe capture (up to about 5 seconds; on the main
   thread it keeps the main event queue flowing) and is cached for the process; threads may
   enumerate different devices at the same time. False for an invalid handle or a NULL
   enumerator, or when nothing is known of the device. */
TAVIX_EXPORT bool TavixDeviceFormatEnumerate(unsigned long device,
                                             ITavixDeviceFormatEnumerator* enumerator);
}
#endif

#endif
