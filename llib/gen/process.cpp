#include "llib/gen/process.h"

#include <cstdarg>
#include <cstdio>

#include "llib/gen/mutex.h"
#include "signalsync.h"

void LProcessInterface::SetError(const char*) {}
void LProcessInterface::SetStatus(const char*, int) {}
void LProcessInterface::SetProgress(double) {}
void LProcessInterface::SetProgressIndeterminateOn() {}
void LProcessInterface::SetProgressIndeterminateOff() {}

void LProcessInterface::SetStatusF(int line, const char* format, ...) {
    char text[8192];
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    SetStatus(text, line);
}

void LProcessInterface::SetErrorF(const char* format, ...) {
    char text[8192];
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    SetError(text);
}

bool LProcessInterfaceVoid::IsToStop() {
    return false;
}

bool LProcessInterfaceVoid::ProcessWait(unsigned int timeoutMs) {
    Sleep(timeoutMs);
    return false;
}

int LProcessInterfaceVoid::ProcessWaitSignal(LSignalObjectRef signal, unsigned int timeoutMs) {
    return signal.WaitSignal(timeoutMs) ? kLProcessDone : kLProcessFailed;
}

int LProcessInterfaceVoid::ProcessWaitSignalObjectGroup(LSignalObjectGroup& group,
                                                        unsigned int timeoutMs) {
    timeval storage{};
    int ready = select(group.nMaxFd + 1, &group.fdSet, nullptr, nullptr,
                       LMakeSelectTimeout(timeoutMs, storage));
    if (ready < 1)
        return kLProcessFailed;
    signalsync::AcquiredReady(group.nMaxFd, group.fdSet);
    return kLProcessDone;
}
