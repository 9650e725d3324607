#include "support/process.h"

#include <pthread.h>
#include <signal.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <fstream>

pid_t StartChild(const std::function<void()>& body) {
    fflush(nullptr);
    const pid_t child = fork();
    if (child == 0) {
        body();
        _exit(0);
    }
    return child;
}

int WaitForChild(pid_t child) {
    int status = 0;
    if (child <= 0 || waitpid(child, &status, 0) != child)
        return -1000;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}

void KillChild(pid_t child) {
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
}

CommandOutput RunCommand(const std::string& command) {
    CommandOutput run;
    FILE* pipe = popen((command + " 2>&1 </dev/null").c_str(), "r");
    if (pipe == nullptr)
        return run;
    char buffer[4096];
    size_t got;
    while ((got = fread(buffer, 1, sizeof buffer, pipe)) > 0)
        run.output.append(buffer, got);
    const int status = pclose(pipe);
    run.status = WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
    return run;
}

pid_t CurrentThreadId() {
    return static_cast<pid_t>(syscall(SYS_gettid));
}

namespace {

// The state letter of /proc/<id>/stat, which follows the parenthesised command name; 0 when the
// thread is gone. Any thread's id names it there, as a process's id names its first thread.
char ThreadState(pid_t thread) {
    std::ifstream file("/proc/" + std::to_string(thread) + "/stat");
    std::string line;
    std::getline(file, line);
    const size_t end = line.rfind(')');
    return end != std::string::npos && end + 2 < line.size() ? line[end + 2] : 0;
}

} // namespace

bool WaitUntilAsleep(pid_t thread, const std::function<bool()>& done) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    for (;;) {
        if (done())
            return true;
        const char state = ThreadState(thread);
        if (state == 'S' || state == 'Z' || state == 0)
            return true;
        if (std::chrono::steady_clock::now() > end)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
}

Interrupter::Interrupter(int signal) {
    const pthread_t target = pthread_self();
    const pid_t targetId = CurrentThreadId();
    sender = std::thread([this, signal, target, targetId] {
        WaitUntilAsleep(targetId, [this] { return stop.load(); });
        while (!stop) {
            pthread_kill(target, signal);
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
    });
}

Interrupter::~Interrupter() {
    stop = true;
    sender.join();
}
