// The process interface: how a long operation (a file transfer, a folder copy, a TCP exchange)
// learns that it is to stop, waits without missing a stop request, and reports status, progress
// and errors. LThread implements it for worker threads; LProcessInterfaceVoid never stops and
// reports nothing.
#pragma once

#include "llib/gen/signalobject.h"

// Results of the process waits and of the operations built on them.
enum {
    kLProcessDone = 0,    // the awaited signal is set, or the operation finished
    kLProcessStopped = 1, // a stop was requested through the process interface
    kLProcessFailed = 2   // timed out or failed
};

class LProcessInterface {
public:
    // True when the operation is asked to stop.
    virtual bool IsToStop() = 0;
    // Waits up to timeoutMs; true when the wait ended because the operation is to stop.
    virtual bool ProcessWait(unsigned int timeoutMs) = 0;
    // Waits for signal: 0 set, 1 stop requested (wins when both are), 2 timed out or failed.
    virtual int ProcessWaitSignal(LSignalObjectRef signal, unsigned int timeoutMs) = 0;
    // Waits for any member of group, with the same results as ProcessWaitSignal.
    virtual int ProcessWaitSignalObjectGroup(LSignalObjectGroup& group, unsigned int timeoutMs) = 0;
    // Reports; the base does nothing with any of these.
    virtual void SetError(const char* text);
    virtual void SetStatus(const char* text, int line);
    virtual void SetProgress(double value);
    virtual void SetProgressIndeterminateOn();
    virtual void SetProgressIndeterminateOff();

    // printf-style SetStatus and SetError, truncated to 8191 bytes.
    void SetStatusF(int line, const char* format, ...) __attribute__((format(printf, 3, 4)));
    void SetErrorF(const char* format, ...) __attribute__((format(printf, 2, 3)));

protected:
    // Not deleted through this interface: it has no virtual destructor.
    ~LProcessInterface() = default;
};

// For callers that never stop and want no reports.
class LProcessInterfaceVoid : public LProcessInterface {
public:
    bool IsToStop() override;
    bool ProcessWait(unsigned int timeoutMs) override;
    int ProcessWaitSignal(LSignalObjectRef signal, unsigned int timeoutMs) override;
    int ProcessWaitSignalObjectGroup(LSignalObjectGroup& group, unsigned int timeoutMs) override;
};
