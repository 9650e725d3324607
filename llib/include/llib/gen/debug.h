// Diagnostics: the crash-signal trap, the debug thread table, the debug status line, bug-report
// scopes and formatted trace output.
//
// A thread is identified everywhere here by its kernel thread id (gettid), held as an unsigned
// 32-bit number ("port" below). The globals are process-wide and exported so that the host and
// the diagnostic identity string can read them.
#pragma once

#include "llib/gen/mutex.h"

// Number of records in the debug thread table.
constexpr unsigned int LDEBUG_MAX_THREADS = 64;
// Markers of gDebugThreadData[i].dwThreadId.
constexpr unsigned int LDEBUG_THREAD_FREE = 0xFFFFFFFF;
constexpr unsigned int LDEBUG_THREAD_CLAIMED = 0xFFFFFFFE;

// One record of the debug thread table.
struct LDebugThreadData {
    unsigned int dwThreadId; // owner's port, LDEBUG_THREAD_FREE or LDEBUG_THREAD_CLAIMED
    char szLastDialog[32];   // last-dialog text, zero-terminated
    char szTag[8];           // short tag of the thread, at most 7 characters
};

// The process-wide debug status line: one text and the thread that set it (0 when cleared).
class LDebugThreadStatus {
public:
    LDebugThreadStatus();

    // Makes the calling thread the owner and copies text (at most 259 characters kept).
    // text must not be null. Any thread; unsynchronised, informational.
    void SetDebugThreadStatus(const char* text);

    char szStatus[260];
    unsigned int dwThreadId;
};

// Installs the crash-signal dispositions when constructed; its one instance is built at library
// load (gLExceptionHandlerInstaller).
//   SIGQUIT, SIGILL, SIGFPE, SIGSEGV, SIGBUS -> LDebugSignalHandler (all signals blocked while it
//   runs, SA_RESTART); SIGPIPE -> ignored, so writes to closed pipes and sockets fail with EPIPE.
//   Programs the library starts get the default SIGPIPE action back (llib/unix/childprocess.h).
// It also records gdwMainThreadId and sets the command words to 1 and 0.
class LExceptionHandlerInstaller {
public:
    LExceptionHandlerInstaller();
};

// The debug thread table: LDEBUG_MAX_THREADS records; only the first gnDebugThreads are in use.
extern LDebugThreadData gDebugThreadData[LDEBUG_MAX_THREADS];
extern unsigned int gnDebugThreads;
// Guards allocating and freeing records of the table (not the per-thread writes).
extern LLockObject loDebugThreads;
extern LDebugThreadStatus debugAS;
// The host's current and previous command (1 and 0 after load); the library never writes them.
extern unsigned int gwDebugCurrentCommand;
extern unsigned int gwDebugLastCommand;
// Port of the thread that loaded the library.
extern unsigned int gdwMainThreadId;
// Set by the first trapped signal of the process's life.
extern volatile unsigned char bLLibExceptionAlreadyTrapped;
extern LExceptionHandlerInstaller gLExceptionHandlerInstaller;

// The handler of the trapped signals. Only the first trapped signal is acted on: SIGFPE, SIGBUS,
// SIGSEGV (and SIGABRT, SIGKILL if ever routed here) end the process with exit(666), so that
// exit-time destructors run; anything else (SIGQUIT, SIGILL) is swallowed. A later fault signal
// (SIGILL, SIGFPE, SIGSEGV, SIGBUS) puts back the system's default action before returning: a
// fault that repeats (a faulting instruction re-executed, or a crash inside the exit path) then
// ends the process by that signal instead of re-entering the handler forever.
void LDebugSignalHandler(int signalNumber);

// Formats into a 512-byte buffer (longer output is cut to 511 characters), writes it to stderr
// without adding a newline and flushes; returns fflush's result. Any thread.
int OutputDebugStringF(const char* format, ...) __attribute__((format(printf, 1, 2)));

// Enters the calling thread into the table with the tag "first 4 characters of name", or, when
// name is null, the default tag (port modulo 10000 as "%.4d"). A full table leaves the thread
// out, silently. Calling twice gives the thread two records. Any thread.
void LDebugThreadDataStartThread(const char* name);
// Frees the calling thread's first record and trims free records off the end of the used range.
// Does nothing for a thread not in the table.
void LDebugThreadDataStopThread();
// Tags the calling thread's record with the first 4 characters of name followed by the units,
// tens and hundreds digits of its port. name must not be null. Nothing for a thread not in the
// table.
void LDebugThreadSetName(const char* name);
// Sets the calling thread's last-dialog text: text followed by the units, tens and hundreds
// digits of its port, cut to 31 characters. Nothing for a thread not in the table.
void LDebugThreadSetLastDialog(const char* text);
// debugAS.SetDebugThreadStatus(text).
void LDebugThreadStatusSet(const char* text);
// Clears the owner of debugAS when the calling thread owns it (the text stays).
void LDebugThreadStatusClear();

// Gives the calling thread a named tag (as LDebugThreadSetName) for the lifetime of the scope
// and restores the previous tag at its end. Scopes nest; inner ones must end first. Does nothing
// for a thread not in the table.
class LBugReportBlockScope {
public:
    explicit LBugReportBlockScope(const char* name);
    ~LBugReportBlockScope();
    LBugReportBlockScope(const LBugReportBlockScope&) = delete;
    LBugReportBlockScope& operator=(const LBugReportBlockScope&) = delete;

    char szSavedTag[8];
    unsigned int nIndex; // record index, 0xFFFFFFFF when the thread is not in the table
};

// The calling thread's port (its kernel thread id).
unsigned int LDebugCurrentThreadPort();

// One line identifying the platform and what the calling thread is doing, framed by two texts
// of the host's: "first-MacIntel1068-second-" then the thread's tag (none for a numeric default
// tag), its last dialog and its activity (the status line it owns, or the main thread's
// current command). destination holds at least 260 bytes; the result is cut at 259
// characters. Returns the length the whole line would have had. Any thread.
int LDebugGenerateXIString(char* destination, const char* first, const char* second);

// Hang detection: a per-user marker file ("/var/tmp/_LTavix_rl_" and the login name) that a
// live process creates and holds with an exclusive lock, deleted at orderly shutdown and at
// exit. A marker found unlocked at start is the trace of a run that never reached exit; it is
// cleared.
class LHangDetector;
// Creates and holds the marker, or clears a stale one (holding none then). Once, at start.
void LDebugHangDetectorInit();
// Closes and deletes the marker. At orderly shutdown.
void LDebugHangDetectorDestroy();
