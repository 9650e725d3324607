#include "llib/gen/processrun.h"

#include <cerrno>
#include <sys/wait.h>

#include "llib/unix/childprocess.h"

ProcessRunData::ProcessRunData() : nResult(1), nExitCode(-1) {
    DoneSignal.Reset();
    ReleaseSignal.Reset();
}

void* ProcessRunThreadCallback(void* data) {
    ProcessRunData* run = static_cast<ProcessRunData*>(data);
    run->nResult = 0;
    run->nExitCode = -1;
    const char* command = run->Command.pData != nullptr ? run->Command.pData : "";
    // The command reads nothing: its standard input is empty.
    const pid_t child =
        childprocess::StartShell(command, childprocess::kNullDevice, childprocess::kInherit);
    if (child < 0) {
        run->nResult = 2;
    } else {
        const int status = childprocess::Wait(child);
        // ECHILD: another part of the host reaped it; it ran, with an unknown status.
        if (status == -1 && errno != ECHILD)
            run->nResult = 2;
        else if (status != -1 && WIFEXITED(status))
            run->nExitCode = WEXITSTATUS(status);
    }
    run->DoneSignal.Signal();
    // Without a pipe the caller cannot release the data: keep it rather than spin.
    if (run->ReleaseSignal.filedes[0] < 0)
        return nullptr;
    // An interrupted wait reports true; only a set ReleaseSignal ends it.
    while (!run->ReleaseSignal.IsSignaled())
        run->ReleaseSignal.WaitSignal(0xFFFFFFFFu);
    // Consuming the byte also orders the caller's last use of the data before the delete.
    run->ReleaseSignal.Reset();
    delete run;
    return nullptr;
}
