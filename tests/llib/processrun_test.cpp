#include "llib/gen/processrun.h"

#include <gtest/gtest.h>
#include <pthread.h>
#include <string>

namespace {

struct Outcome {
    int result;
    int exitCode;
};

// Runs command on its own thread as a caller would: waits for DoneSignal, reads the outcome,
// releases the data (which the worker then deletes).
Outcome RunCommand(const char* command) {
    ProcessRunData* data = new ProcessRunData;
    EXPECT_EQ(1, data->nResult);
    EXPECT_EQ(-1, data->nExitCode);
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

TEST(ProcessRun, ReportsExitStatusesAndSignals) {
    Outcome outcome = RunCommand("exit 3");
    EXPECT_EQ(0, outcome.result);
    EXPECT_EQ(3, outcome.exitCode);
    outcome = RunCommand("true");
    EXPECT_EQ(0, outcome.result);
    EXPECT_EQ(0, outcome.exitCode);
    outcome = RunCommand("kill -KILL $$");
    EXPECT_EQ(0, outcome.result) << "the command ran";
    EXPECT_EQ(-1, outcome.exitCode) << "killed by a signal: no exit status";
}

TEST(ProcessRun, StandardInputIsAnEmptyPipeAndEmptyCommandsRun) {
    // cat reads the empty pipe and ends at once rather than waiting for a terminal.
    Outcome outcome = RunCommand("cat");
    EXPECT_EQ(0, outcome.exitCode);
    outcome = RunCommand("test -t 0");
    EXPECT_EQ(1, outcome.exitCode) << "standard input is not a terminal";
    outcome = RunCommand(nullptr); // no text: the empty command
    EXPECT_EQ(0, outcome.result);
    EXPECT_EQ(0, outcome.exitCode);
}
