// Copying one file as a long operation under a process interface (on a worker thread), with
// status, progress and stop.
#pragma once

#include "llib/gen/process.h"

// The request: copy source to destination.
struct LProcessCopyFile {
    const char* source;
    const char* destination;
};

// Reports SetStatus("Copy File", 0) and the destination's file name on line 1, then copies in
// 32768-byte chunks, waiting up to 1000 ms for each file's lock, asking IsToStop before and
// reporting SetProgress after each chunk (the progress before that chunk: 0, then one step
// per chunk). The copy gets the source's modification time.
// 0 done; 1 stopped; 2 failed: the destination's folder is missing (nothing is opened), a file
// cannot be opened (nothing is deleted), or a read or write fell short (a full disk). When
// stopped or failed during the copy the partial destination is deleted.
int Process(LProcessInterface& process, const LProcessCopyFile& request);
