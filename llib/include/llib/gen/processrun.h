// Runs a shell command on a thread of its own and hands the outcome back through signals, so the
// caller can wait for it through its process interface and give up when asked to stop.
#pragma once

#include "llib/gen/signalobject.h"
#include "llib/gen/stringlong.h"

// The caller allocates it with new, fills Command, starts a thread on ProcessRunThreadCallback,
// waits for DoneSignal, reads nResult and nExitCode, then sets ReleaseSignal: the worker then
// deletes the data.
class ProcessRunData {
public:
    ProcessRunData();

    LStringLongTemplate<char> Command; // the shell command; empty runs the empty command
    LSignalObject DoneSignal;          // set by the worker when the command has finished
    LSignalObject ReleaseSignal;       // set by the caller when it no longer needs the data
    int nResult;   // 1 until run, 0 when the command ran, 2 when it could not be run
    int nExitCode; // the exit status, -1 unless the command exited normally
};

// A thread entry (data is a ProcessRunData*): runs Command through the shell with an empty
// standard input, records the outcome, signals DoneSignal, waits for ReleaseSignal and deletes
// the data.
void* ProcessRunThreadCallback(void* data);
