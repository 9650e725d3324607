// Diagnostics: crash-signal trap, debug thread table, status line, bug-report scopes, trace
// output.
#include "llib/gen/debug.h"

#include <initializer_list>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <unistd.h>

// Built at library load in this order, after the device table (1001) and the main-thread record
// (1002); 1004 belongs to the hang detector. Destructors run in the reverse order at exit.
LDebugThreadStatus debugAS __attribute__((init_priority(1003)));
LLockObject loDebugThreads __attribute__((init_priority(1005)));
LExceptionHandlerInstaller gLExceptionHandlerInstaller __attribute__((init_priority(1006)));

LDebugThreadData gDebugThreadData[LDEBUG_MAX_THREADS];
unsigned int gnDebugThreads = 0;
unsigned int gwDebugCurrentCommand = 0;
unsigned int gwDebugLastCommand = 0;
unsigned int gdwMainThreadId = 0;
volatile unsigned char bLLibExceptionAlreadyTrapped = 0;

namespace {

constexpr unsigned int kNotInTable = 0xFFFFFFFF;
// The signals that end the process when they are the first trapped one: abort, floating-point
// error, kill, bus error and segmentation fault. Named rather than numbered: Linux numbers
// SIGBUS 7, where the system this was designed for numbers it 10.
bool EndsTheProcess(int signalNumber) {
    return signalNumber == SIGABRT || signalNumber == SIGFPE || signalNumber == SIGKILL ||
           signalNumber == SIGBUS || signalNumber == SIGSEGV;
}

void WriteNamedTag(char (&tag)[8], const char* name, unsigned int port) {
    snprintf(tag, sizeof tag, "%.4s%d%d%d", name, static_cast<int>(port % 10),
             static_cast<int>((port % 100) / 10), static_cast<int>((port % 1000) / 100));
}

// Index of the calling thread's first record, or kNotInTable. Lock-free: each thread writes only
// its own record, and a record's id is stored after the rest of it.
unsigned int FindOwnRecord(unsigned int port) {
    unsigned int count = __atomic_load_n(&gnDebugThreads, __ATOMIC_ACQUIRE);
    if (count > LDEBUG_MAX_THREADS)
        count = LDEBUG_MAX_THREADS;
    for (unsigned int i = 0; i < count; ++i) {
        if (__atomic_load_n(&gDebugThreadData[i].dwThreadId, __ATOMIC_ACQUIRE) == port)
            return i;
    }
    return kNotInTable;
}

bool IsFaultSignal(int signalNumber) {
    return signalNumber == SIGILL || signalNumber == SIGFPE || signalNumber == SIGSEGV ||
           signalNumber == SIGBUS;
}

} // namespace

unsigned int LDebugCurrentThreadPort() {
    return static_cast<unsigned int>(gettid());
}

LDebugThreadStatus::LDebugThreadStatus() : szStatus{}, dwThreadId(0) {}

void LDebugThreadStatus::SetDebugThreadStatus(const char* text) {
    dwThreadId = LDebugCurrentThreadPort();
    snprintf(szStatus, sizeof szStatus, "%s", text);
}

LExceptionHandlerInstaller::LExceptionHandlerInstaller() {
    gwDebugCurrentCommand = 1;
    gwDebugLastCommand = 0;
    gdwMainThreadId = LDebugCurrentThreadPort();

    struct sigaction action {};
    action.sa_handler = LDebugSignalHandler;
    sigfillset(&action.sa_mask);
    action.sa_flags = SA_RESTART;
    for (int signalNumber : {SIGQUIT, SIGILL, SIGFPE, SIGSEGV, SIGBUS})
        sigaction(signalNumber, &action, nullptr);
    action.sa_handler = SIG_IGN;
    sigaction(SIGPIPE, &action, nullptr);
}

void LDebugSignalHandler(int signalNumber) {
    if (bLLibExceptionAlreadyTrapped != 0) {
        if (IsFaultSignal(signalNumber)) {
            struct sigaction fallback {};
            fallback.sa_handler = SIG_DFL;
            sigemptyset(&fallback.sa_mask);
            sigaction(signalNumber, &fallback, nullptr);
        }
        return;
    }
    bLLibExceptionAlreadyTrapped = 1;
    if (EndsTheProcess(signalNumber))
        exit(666);
}

int OutputDebugStringF(const char* format, ...) {
    char buffer[512];
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(buffer, sizeof buffer, format, arguments);
    va_end(arguments);
    fputs(buffer, stderr);
    return fflush(stderr);
}

void LDebugThreadDataStartThread(const char* name) {
    const unsigned int port = LDebugCurrentThreadPort();
    unsigned int index = kNotInTable;
    loDebugThreads.Lock();
    for (unsigned int i = 0; i < gnDebugThreads; ++i) {
        if (__atomic_load_n(&gDebugThreadData[i].dwThreadId, __ATOMIC_ACQUIRE) ==
            LDEBUG_THREAD_FREE) {
            index = i;
            break;
        }
    }
    if (index == kNotInTable) {
        if (gnDebugThreads >= LDEBUG_MAX_THREADS) {
            loDebugThreads.Unlock();
            return;
        }
        index = gnDebugThreads;
        __atomic_store_n(&gDebugThreadData[index].dwThreadId, LDEBUG_THREAD_CLAIMED,
                         __ATOMIC_RELEASE);
        __atomic_store_n(&gnDebugThreads, gnDebugThreads + 1, __ATOMIC_RELEASE);
    } else {
        __atomic_store_n(&gDebugThreadData[index].dwThreadId, LDEBUG_THREAD_CLAIMED,
                         __ATOMIC_RELEASE);
    }
    loDebugThreads.Unlock();

    LDebugThreadData& record = gDebugThreadData[index];
    if (name != nullptr)
        snprintf(record.szTag, sizeof record.szTag, "%.4s", name);
    else
        snprintf(record.szTag, sizeof record.szTag, "%.4d", static_cast<int>(port % 10000));
    record.szLastDialog[0] = 0;
    __atomic_store_n(&record.dwThreadId, port, __ATOMIC_RELEASE);
}

void LDebugThreadDataStopThread() {
    const unsigned int port = LDebugCurrentThreadPort();
    loDebugThreads.Lock();
    unsigned int index = FindOwnRecord(port);
    if (index != kNotInTable) {
        __atomic_store_n(&gDebugThreadData[index].dwThreadId, LDEBUG_THREAD_FREE, __ATOMIC_RELEASE);
        unsigned int count = gnDebugThreads;
        while (count > 0 && __atomic_load_n(&gDebugThreadData[count - 1].dwThreadId,
                                            __ATOMIC_ACQUIRE) == LDEBUG_THREAD_FREE)
            --count;
        __atomic_store_n(&gnDebugThreads, count, __ATOMIC_RELEASE);
    }
    loDebugThreads.Unlock();
}

void LDebugThreadSetName(const char* name) {
    const unsigned int port = LDebugCurrentThreadPort();
    unsigned int index = FindOwnRecord(port);
    if (index != kNotInTable)
        WriteNamedTag(gDebugThreadData[index].szTag, name, port);
}

void LDebugThreadSetLastDialog(const char* text) {
    const unsigned int port = LDebugCurrentThreadPort();
    unsigned int index = FindOwnRecord(port);
    if (index == kNotInTable)
        return;
    auto& dialog = gDebugThreadData[index].szLastDialog;
    snprintf(dialog, sizeof dialog, "%s%d%d%d", text, static_cast<int>(port % 10),
             static_cast<int>((port % 100) / 10), static_cast<int>((port % 1000) / 100));
}

void LDebugThreadStatusSet(const char* text) {
    debugAS.SetDebugThreadStatus(text);
}

void LDebugThreadStatusClear() {
    if (debugAS.dwThreadId == LDebugCurrentThreadPort())
        debugAS.dwThreadId = 0;
}

LBugReportBlockScope::LBugReportBlockScope(const char* name) : szSavedTag{}, nIndex(kNotInTable) {
    const unsigned int port = LDebugCurrentThreadPort();
    unsigned int index = FindOwnRecord(port);
    if (index == kNotInTable)
        return;
    nIndex = index;
    memcpy(szSavedTag, gDebugThreadData[index].szTag, sizeof szSavedTag);
    WriteNamedTag(gDebugThreadData[index].szTag, name, port);
}

LBugReportBlockScope::~LBugReportBlockScope() {
    if (nIndex != kNotInTable)
        memcpy(gDebugThreadData[nIndex].szTag, szSavedTag, sizeof szSavedTag);
}
