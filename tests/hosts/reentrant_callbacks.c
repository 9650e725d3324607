/* A plain C host whose callbacks call back into the library for their own device, on the
   capture thread: stop capture, stop recording, close and release the last reference, cut the
   callbacks off, start again with another callback. Linked against libtavix.so like any host;
   run plain, under valgrind's memcheck and in the sanitizer builds.

   Each case prints "ok NAME" or "FAIL NAME: why"; the exit status is the number of failures. A
   wait that never ends (a deadlock) fails its case after a generous deadline. */
#include <stdatomic.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include "llib/mac/tavix.h"

static const char* const kCamera = "Tavix Test Camera";
static const char* const kMicrophone = "Tavix Test Microphone";

/* Long enough for a slow machine under valgrind, which runs the test camera's pattern at a
   fraction of its speed, beside other work. */
static double gDeadlineSeconds = 300;
static int gFailures;
static char gFolder[200];

/* What the callbacks saw and did, written on the capture thread and read by the main thread. */
static struct {
    unsigned long device;
    atomic_int videoCalls, audioCalls, otherCalls, thirdCalls;
    atomic_int callsAfterAction; /* calls that arrived after the callback's own stop */
    atomic_int claimed;          /* a callback has taken the action on itself */
    atomic_int acted;            /* the callback has done its action */
    atomic_int actionFailed;     /* a call in the action answered wrongly */
} gHost;

static void ResetHost(unsigned long device) {
    gHost.device = device;
    atomic_store(&gHost.videoCalls, 0);
    atomic_store(&gHost.audioCalls, 0);
    atomic_store(&gHost.otherCalls, 0);
    atomic_store(&gHost.thirdCalls, 0);
    atomic_store(&gHost.callsAfterAction, 0);
    atomic_store(&gHost.claimed, 0);
    atomic_store(&gHost.acted, 0);
    atomic_store(&gHost.actionFailed, 0);
}

static double Now(void) {
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return (double)now.tv_sec + (double)now.tv_nsec / 1e9;
}

static void SleepMs(int ms) {
    struct timespec pause = {ms / 1000, (long)(ms % 1000) * 1000000L};
    nanosleep(&pause, NULL);
}

/* Waits for a counter to reach a value; false at the deadline. */
static bool WaitFor(atomic_int* counter, int value) {
    const double end = Now() + gDeadlineSeconds;
    while (atomic_load(counter) < value) {
        if (Now() > end)
            return false;
        SleepMs(5);
    }
    return true;
}

/* Waits a few frame intervals and answers whether the counter stayed where it was. */
static bool StaysAt(atomic_int* counter, int value) {
    SleepMs(300);
    return atomic_load(counter) == value;
}

static void Check(bool* ok, bool condition, const char* name, const char* why) {
    if (*ok && !condition) {
        printf("FAIL %s: %s\n", name, why);
        fflush(stdout);
        *ok = false;
        ++gFailures;
    }
}

static void Report(bool ok, const char* name) {
    if (ok)
        printf("ok %s\n", name);
    fflush(stdout);
}

static long FileSize(const char* path) {
    struct stat info;
    return stat(path, &info) == 0 ? (long)info.st_size : -1;
}

static unsigned long OpenCamera(void) {
    const unsigned long camera = TavixDeviceGet(kCamera, TavixDeviceMediaTypeVideo);
    if (camera != 0 && !TavixDeviceOpen(camera)) {
        TavixDeviceRelease(camera);
        return 0;
    }
    return camera;
}

static void Finish(unsigned long camera) {
    TavixDeviceStopCapture(camera);
    TavixDeviceClose(camera);
    TavixDeviceRelease(camera);
}

/* Counts a call, and those that come after the callback acted; answers the call's number. */
static int CountOnly(atomic_int* calls) {
    if (atomic_load(&gHost.acted))
        atomic_fetch_add(&gHost.callsAfterAction, 1);
    return atomic_fetch_add(calls, 1) + 1;
}

/* True once, from the third call on, for the call that is to act; with `needSound`, once sound
   has come too: a recording starts only when it has pictures and sound, so a stop before that
   would leave no file. */
static bool CountCall(atomic_int* calls, bool needSound) {
    return CountOnly(calls) >= 3 && (!needSound || atomic_load(&gHost.audioCalls) >= 2) &&
           !atomic_exchange(&gHost.claimed, 1);
}

static void Expect(bool answer) {
    if (!answer)
        atomic_store(&gHost.actionFailed, 1);
}

/* What a case's callback does to its own device on the capture thread. */
enum Action { kStopCapture, kStopRecording, kCloseRelease, kInvalidate, kRestart, kOnSound };
static enum Action gAction;

static void CountAudio(const unsigned char* s, unsigned int f, unsigned long r, unsigned long c,
                       unsigned long b, unsigned long n, long data) {
    (void)s, (void)f, (void)r, (void)c, (void)b, (void)n, (void)data;
    /* Only the audio-stop case acts on sound. */
    if (gAction != kOnSound) {
        CountOnly(&gHost.audioCalls);
        return;
    }
    if (!CountCall(&gHost.audioCalls, false))
        return;
    Expect(TavixDeviceStopCapture(gHost.device));
    atomic_store(&gHost.acted, 1);
}

static void ThirdCallBack(const unsigned char* p, unsigned long f, unsigned long w, unsigned long h,
                          unsigned long r, const SMPTETime* t, long data) {
    (void)f, (void)w, (void)h, (void)r, (void)t;
    if (p != NULL && data == 3)
        atomic_fetch_add(&gHost.thirdCalls, 1);
}

/* Second callback of the restart case: stops the whole capture and starts a new one. */
static void OtherCallBack(const unsigned char* p, unsigned long f, unsigned long w, unsigned long h,
                          unsigned long r, const SMPTETime* t, long data) {
    (void)f, (void)w, (void)h, (void)r, (void)t;
    if (p == NULL || data != 2 || atomic_fetch_add(&gHost.otherCalls, 1) + 1 != 3)
        return;
    Expect(TavixDeviceStopCapture(gHost.device));
    Expect(TavixDeviceStartCapture(gHost.device, ThirdCallBack, 3, 0, 0, 0, NULL, 0, 0, 0, 0, 0,
                                   NULL));
}

/* The video callback every case starts with. */
static void ActOnFrame(const unsigned char* p, unsigned long f, unsigned long w, unsigned long h,
                       unsigned long r, const SMPTETime* t, long data) {
    (void)p, (void)f, (void)w, (void)h, (void)r, (void)t, (void)data;
    if (gAction == kOnSound) {
        CountOnly(&gHost.videoCalls);
        return;
    }
    if (!CountCall(&gHost.videoCalls, gAction == kStopCapture || gAction == kStopRecording))
        return;
    const unsigned long device = gHost.device;
    switch (gAction) {
    case kStopCapture:
        Expect(TavixDeviceStopCapture(device));
        Expect(!TavixDeviceIsCapturing(device));
        break;
    case kStopRecording:
        Expect(TavixDeviceStopRecording(device));
        Expect(TavixDeviceIsCapturing(device));
        break;
    case kCloseRelease:
        Expect(TavixDeviceStopCapture(device));
        Expect(TavixDeviceClose(device));
        Expect(TavixDeviceRelease(device));
        break;
    case kInvalidate:
        Expect(TavixDeviceInvalidateCaptureVideoCallBack(device, ActOnFrame, 1));
        Expect(TavixDeviceInvalidateCaptureAudioCallBack(device, CountAudio, 2));
        break;
    case kRestart:
        /* Detaches itself and starts another callback on the running session. */
        Expect(TavixDeviceStopRecording(device));
        atomic_store(&gHost.acted, 1);
        Expect(
            TavixDeviceStartCapture(device, OtherCallBack, 2, 0, 0, 0, NULL, 0, 0, 0, 0, 0, NULL));
        return;
    case kOnSound:
        break;
    }
    atomic_store(&gHost.acted, 1);
}

/* The cases: which callbacks capture starts with, and what the host sees once the callback
   has acted. */
static const struct Case {
    const char* name;
    enum Action action;
    const char* file;    /* recorded to, in the test's folder; NULL for none */
    bool recorded;       /* the file has the recording in it afterwards */
    bool capturingAfter; /* the session still runs once the callback has acted */
    bool released;       /* the callback released the last reference */
    int thirdCalls;      /* calls the callback started by the restarted capture must get */
} kCases[] = {
    {"stop-capture", kStopCapture, "stop-capture.mov", true, false, false, 0},
    {"stop-recording", kStopRecording, "stop-recording.mov", true, true, false, 0},
    {"close-release", kCloseRelease, NULL, false, false, true, 0},
    {"invalidate", kInvalidate, NULL, false, true, false, 0},
    {"restart", kRestart, "restart.mov", false, true, false, 3},
    {"audio-stop", kOnSound, NULL, false, false, false, 0},
};

static void Run(const struct Case* c) {
    const char* name = c->name;
    bool ok = true;
    char path[300];
    snprintf(path, sizeof path, "%s/%s", gFolder, c->file != NULL ? c->file : "");
    const unsigned long camera = OpenCamera();
    ResetHost(camera);
    gAction = c->action;
    /* The restart case takes pictures alone. */
    Check(&ok,
          camera != 0 &&
              TavixDeviceStartCaptureWithAudioDevice(camera, kMicrophone, ActOnFrame, 1, 0, 0, 0,
                                                     c->action == kRestart ? NULL : CountAudio, 2,
                                                     0, 0, 0, 0, c->file != NULL ? path : NULL),
          name, "capture did not start");
    Check(&ok, WaitFor(&gHost.acted, 1), name, "the callback never acted");
    Check(&ok, WaitFor(&gHost.thirdCalls, c->thirdCalls), name,
          "the callback started after a stop in a callback was not called");
    Check(&ok, !atomic_load(&gHost.actionFailed), name, "a call answered wrongly in a callback");
    Check(&ok, TavixDeviceIsCapturing(camera) == c->capturingAfter, name,
          c->capturingAfter ? "the session stopped" : "still capturing");
    Check(&ok, StaysAt(&gHost.callsAfterAction, 0), name, "callbacks after the action");
    Check(&ok, !c->recorded || FileSize(path) > 0, name, "the recording is empty");
    if (c->released) {
        Check(&ok, !TavixDeviceIsOpened(camera), name, "the released handle still answers");
        Check(&ok, !TavixHasUsedDevices(), name, "a handle is still in use");
        if (!ok && camera != 0 && TavixHasUsedDevices())
            Finish(camera);
    } else {
        Finish(camera);
        Check(&ok, !TavixHasUsedDevices(), name, "a handle is still in use");
    }
    Report(ok, name);
}

int main(int argc, char** argv) {
    const char* only = argc > 1 ? argv[1] : NULL;
    const char* deadline = getenv("TAVIX_TEST_DEADLINE_SECONDS");
    if (deadline != NULL && atof(deadline) > 0)
        gDeadlineSeconds = atof(deadline);
    snprintf(gFolder, sizeof gFolder, "/tmp/tavix-reentrant-XXXXXX");
    if (mkdtemp(gFolder) == NULL) {
        perror("mkdtemp");
        return 1;
    }
    for (size_t i = 0; i < sizeof kCases / sizeof kCases[0]; ++i)
        if (only == NULL || strcmp(only, kCases[i].name) == 0)
            Run(&kCases[i]);
    char command[300];
    snprintf(command, sizeof command, "rm -rf '%s'", gFolder);
    if (system(command) != 0)
        fprintf(stderr, "could not remove %s\n", gFolder);
    return gFailures;
}
