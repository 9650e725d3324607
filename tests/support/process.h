// Child processes and blocked threads, for tests of calls that wait, end or change a process.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <functional>
#include <string>
#include <thread>

// Runs body in a child process that ends with _exit(0) if body returns. Output buffered so far
// is flushed first, so that the child does not write it again.
pid_t StartChild(const std::function<void()>& body);
// Waits for a child: its exit status, or minus the signal that ended it.
int WaitForChild(pid_t child);
inline int ForkAndWait(const std::function<void()>& body) {
    return WaitForChild(StartChild(body));
}
// Ends a child at once and reaps it.
void KillChild(pid_t child);

// A shell command's exit status (or minus its signal) and its output, standard error included.
struct CommandOutput {
    int status = -1;
    std::string output;
};
CommandOutput RunCommand(const std::string& command);

// The kernel's identifier of the calling thread.
pid_t CurrentThreadId();
// Waits until thread `thread` (of this process, or a child process's only thread) sleeps in the
// kernel, as a blocking wait does, or ends, or until done() holds (the wait it was to block in
// has already returned). False after 10 s.
bool WaitUntilAsleep(
    pid_t thread, const std::function<bool()>& done = [] { return false; });

// Sends `signal` to the thread that made it once that thread is asleep, then again every 10 ms
// until destroyed: a blocking call made meanwhile is interrupted however the two are scheduled.
class Interrupter {
public:
    explicit Interrupter(int signal);
    ~Interrupter();
    Interrupter(const Interrupter&) = delete;
    Interrupter& operator=(const Interrupter&) = delete;

private:
    std::atomic<bool> stop{false};
    std::thread sender;
};
