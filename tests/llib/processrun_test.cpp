#include "llib/gen/processrun.h"

#include <gtest/gtest.h>
#include <pthread.h>

namespace {

struct Outcome {
    int result;
    int exitCode;
};

// Runs command on its own thread as a caller would: waits for DoneSignal, reads the outcome,
// releases the data (which the worker then deletes).
Outcome RunCommand(const char* command) {
    ProcessRunData* data = new ProcessRunData;
    if (command != nullptr)
        data->Command = command;
    pthread_t thread;
    EXPECT_EQ(0, pthread_create(&thread, nullptr, ProcessRunThreadCallback, data));
    EXPECT_TRUE(data->DoneSignal.WaitSignal(30000));
    const Outcome outcome{data->nResult, data->nExitCode};
    data->ReleaseSignal.Signal();
    pthread_join(thread, nullptr);
    return outcome;
}

} // namespace

// Every command runs (result 0); its exit status is reported, or -1 when a signal ended it. Its
// standard input is an empty pipe: cat ends at once rather than waiting for a terminal.
TEST(ProcessRun, ReportsExitStatusesWithAnEmptyStandardInput) {
    const struct {
        const char* command;
        int exitCode;
    } cases[] = {{"exit 3", 3}, {"kill -KILL $$", -1}, {"cat", 0}, {"test -t 0", 1}, {nullptr, 0}};
    for (const auto& c : cases) {
        const Outcome outcome = RunCommand(c.command);
        const char* shown = c.command != nullptr ? c.command : "(no command)";
        EXPECT_EQ(0, outcome.result) << shown;
        EXPECT_EQ(c.exitCode, outcome.exitCode) << shown;
    }
}
