// Main-thread dispatch through the main event queue, and the notifications built on it.
#include "llib/gen/mainthread.h"

#include "platform/events.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <unistd.h>

EventQueueRef LThreadRunOnMainThread::eventQueue = nullptr;
EventHandlerUPP LThreadRunOnMainThread::eventHandlerUPP = nullptr;
EventHandlerRef LThreadRunOnMainThread::installedHandler = nullptr;

namespace {

template <class T>
T* ReadPointer(EventRef event, EventParamName name, bool* found = nullptr) {
    T* pointer = nullptr;
    OSStatus status =
        GetEventParameter(event, name, typeVoidPtr, nullptr, sizeof pointer, nullptr, &pointer);
    if (found != nullptr)
        *found = status == noErr;
    return status == noErr ? pointer : nullptr;
}

void WritePointer(EventRef event, EventParamName name, const void* pointer) {
    SetEventParameter(event, name, typeVoidPtr, sizeof pointer, &pointer);
}

EventQueueRef Queue() {
    // Posting works before Init too; the items then wait for the handler.
    return LThreadRunOnMainThread::eventQueue != nullptr ? LThreadRunOnMainThread::eventQueue
                                                         : GetMainEventQueue();
}

} // namespace

LThreadRunOnMainThread::LThreadRunOnMainThread()
    : bEnabled(true), bDestroyed(false), nRefCount(0) {}

LThreadRunOnMainThread::~LThreadRunOnMainThread() {
    ThreadRunOnMainThreadDestroy();
}

void LThreadRunOnMainThread::Init() {
    eventQueue = GetMainEventQueue();
    eventHandlerUPP = NewEventHandlerUPP(EventHandler);
    EventTypeSpec type{kLThreadNotifyEventClass, kLThreadNotifyEventKind};
    InstallEventHandler(GetApplicationEventTarget(), eventHandlerUPP, 1, &type, nullptr,
                        &installedHandler);
}

void LThreadRunOnMainThread::Destroy() {
    RemoveEventHandler(installedHandler);
    installedHandler = nullptr;
    DisposeEventHandlerUPP(eventHandlerUPP);
    eventHandlerUPP = nullptr;
}

void LThreadRunOnMainThread::RunOnMainThread(LThreadRunOnMainThreadData* item) {
    if (item == nullptr)
        return;
    if (bDestroyed || !bEnabled) {
        delete item;
        return;
    }
    IncRefCount();
    EventRef event = nullptr;
    if (CreateEvent(nullptr, kLThreadNotifyEventClass, kLThreadNotifyEventKind, 0,
                    kEventAttributeNone, &event) != noErr) {
        DecRefCount();
        delete item;
        return;
    }
    WritePointer(event, kLThreadNotifyParamRunner, this);
    WritePointer(event, kLThreadNotifyParamData, item);
    if (PostEventToQueue(Queue(), event, kEventPriorityHigh) != noErr) {
        DecRefCount();
        delete item;
    }
    ReleaseEvent(event);
}

OSStatus LThreadRunOnMainThread::EventHandler(EventHandlerCallRef, EventRef event, void*) {
    auto* item = ReadPointer<LThreadRunOnMainThreadData>(event, kLThreadNotifyParamData);
    if (item == nullptr)
        return noErr;
    item->MainThreadFunction();
    delete item;
    // The item has run: it no longer belongs to anyone, even if the event is sent again.
    WritePointer(event, kLThreadNotifyParamData, nullptr);
    auto* runner = ReadPointer<LThreadRunOnMainThread>(event, kLThreadNotifyParamRunner);
    if (runner != nullptr)
        runner->DecRefCount();
    return noErr;
}

void LThreadRunOnMainThread::ThreadRunOnMainThreadDestroy() {
    if (!bEnabled)
        return;
    bDestroyed = true;
    FlushSpecificEventsFromQueue(Queue(), FlushEventFromQueueCallBack, this);
    bEnabled = false;
}

bool LThreadRunOnMainThread::FlushEventFromQueueCallBack(EventRef event, void* owner) {
    return static_cast<LThreadRunOnMainThread*>(owner)->FlushEventFromQueue(event);
}

bool LThreadRunOnMainThread::FlushEventFromQueue(EventRef event) {
    bool found = false;
    auto* runner = ReadPointer<LThreadRunOnMainThread>(event, kLThreadNotifyParamRunner, &found);
    if (!found || runner != this)
        return false;
    auto* item = ReadPointer<LThreadRunOnMainThreadData>(event, kLThreadNotifyParamData);
    if (item == nullptr)
        return true;
    WritePointer(event, kLThreadNotifyParamData, nullptr);
    delete item;
    DecRefCount();
    return true;
}

int LThreadRunOnMainThread::GetRefCount() const {
    RefCountLock.Lock();
    int count = nRefCount;
    RefCountLock.Unlock();
    return count;
}

void LThreadRunOnMainThread::IncRefCount() {
    RefCountLock.Lock();
    ++nRefCount;
    RefCountLock.Unlock();
}

void LThreadRunOnMainThread::DecRefCount() {
    RefCountLock.Lock();
    --nRefCount;
    RefCountLock.Unlock();
}

void LThreadQueuedNotifyData::MainThreadFunction() {
    pNotify->OnQueuedNotify();
}

void LThreadQueuedNotify::PostQueueNotify() {
    Runner.RunOnMainThread(new LThreadQueuedNotifyData(*this));
}

void LThreadQueuedNotify::ThreadQueuedNotifyDestroy() {
    Runner.ThreadRunOnMainThreadDestroy();
}

LQueuedNotifyDataHandlerData::LQueuedNotifyDataHandlerData(LQueuedNotifyDataHandler& handler,
                                                           unsigned int code, const void* data,
                                                           unsigned long size)
    : pHandler(&handler), dwCode(code), pData(nullptr), dwSize(static_cast<unsigned int>(size)) {
    if (data != nullptr) {
        pData = malloc(size > 0 ? size : 1);
        if (pData != nullptr && size > 0)
            memcpy(pData, data, size);
    }
}

LQueuedNotifyDataHandlerData::~LQueuedNotifyDataHandlerData() {
    free(pData);
}

void LQueuedNotifyDataHandlerData::MainThreadFunction() {
    pHandler->EvQueuedNotifyData(dwCode, pData, dwSize);
}

void LQueuedNotifyDataHandler::PostNotifyFromSender(unsigned int code, const void* data,
                                                    unsigned long size) {
    Runner.RunOnMainThread(new LQueuedNotifyDataHandlerData(*this, code, data, size));
}

void LQueuedNotifyDataHandler::QueuedNotifyDataHandlerDestroy() {
    Runner.ThreadRunOnMainThreadDestroy();
}

LThreadNotifyInterface::LThreadNotifyInterface(LProcessInterface* target)
    : pTarget(target), pNotifyHandler(this), szStatusLine0{}, szStatusLine1{} {}

LThreadNotifyInterface::~LThreadNotifyInterface() {
    StopThreadNow();
    QueuedNotifyDataHandlerDestroy();
}

void LThreadNotifyInterface::SetError(const char* text) {
    if (pNotifyHandler != nullptr && text != nullptr)
        pNotifyHandler->PostNotifyFromSender(kNotifyError, text, strlen(text) + 1);
}

void LThreadNotifyInterface::SetStatus(const char* text, int line) {
    if (line != 0 && line != 1)
        return;
    char* target = line == 0 ? szStatusLine0 : szStatusLine1;
    TextLock.Lock();
    snprintf(target, sizeof szStatusLine0, "%s", text != nullptr ? text : "");
    TextLock.Unlock();
    if (pNotifyHandler != nullptr)
        pNotifyHandler->PostNotifyFromSender(line == 0 ? kNotifyStatusLine0 : kNotifyStatusLine1,
                                             nullptr, 0);
}

void LThreadNotifyInterface::SetProgress(double value) {
    if (pNotifyHandler == nullptr)
        return;
    // Truncated toward zero; a value whose percentage does not fit 32 bits (or NaN) reports 0.
    double percent = value * 100.0;
    long size = percent > -2147483648.0 && percent < 4294967296.0 ? static_cast<long>(percent) : 0;
    pNotifyHandler->PostNotifyFromSender(kNotifyProgress, nullptr,
                                         static_cast<unsigned long>(size));
}

void LThreadNotifyInterface::SetProgressIndeterminateOn() {
    if (pNotifyHandler != nullptr)
        pNotifyHandler->PostNotifyFromSender(kNotifyIndeterminateOn, nullptr, 0);
}

void LThreadNotifyInterface::SetProgressIndeterminateOff() {
    if (pNotifyHandler != nullptr)
        pNotifyHandler->PostNotifyFromSender(kNotifyIndeterminateOff, nullptr, 0);
}

void LThreadNotifyInterface::EvQueuedNotifyData(unsigned int code, const void* data,
                                                unsigned long size) {
    if (pTarget == nullptr)
        return;
    switch (code) {
    case kNotifyError:
        if (data != nullptr)
            pTarget->SetError(static_cast<const char*>(data));
        break;
    case kNotifyStatusLine0:
    case kNotifyStatusLine1: {
        char text[260];
        TextLock.Lock();
        memcpy(text, code == kNotifyStatusLine0 ? szStatusLine0 : szStatusLine1, sizeof text);
        TextLock.Unlock();
        pTarget->SetStatus(text, code == kNotifyStatusLine0 ? 0 : 1);
        break;
    }
    case kNotifyProgress:
        pTarget->SetProgress(static_cast<double>(static_cast<unsigned int>(size)) * 0.01);
        break;
    case kNotifyIndeterminateOn:
        pTarget->SetProgressIndeterminateOn();
        break;
    case kNotifyIndeterminateOff:
        pTarget->SetProgressIndeterminateOff();
        break;
    default:
        break;
    }
}

bool LIsMainThread() {
    return gettid() == getpid();
}
