#include "llib/unix/childprocess.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>

extern char** environ;

namespace childprocess {

namespace {

// The descriptor action for target: a dup2 of source, /dev/null opened in mode, or nothing.
int Redirect(posix_spawn_file_actions_t& actions, int source, int target, int mode) {
    if (source == kNullDevice)
        return posix_spawn_file_actions_addopen(&actions, target, "/dev/null", mode, 0);
    if (source >= 0)
        // dup2 leaves the copy open across exec even when source is close-on-exec.
        return posix_spawn_file_actions_adddup2(&actions, source, target);
    return 0;
}

} // namespace

pid_t Start(const char* const* argv, int input, int output) {
    if (argv == nullptr || argv[0] == nullptr || argv[0][0] == 0) {
        errno = EINVAL;
        return -1;
    }
    posix_spawnattr_t attributes;
    posix_spawn_file_actions_t actions;
    posix_spawnattr_init(&attributes);
    posix_spawn_file_actions_init(&actions);
    sigset_t defaults, mask;
    sigemptyset(&defaults);
    sigaddset(&defaults, SIGPIPE);
    sigemptyset(&mask);
    int status = posix_spawnattr_setsigdefault(&attributes, &defaults);
    if (status == 0)
        status = posix_spawnattr_setsigmask(&attributes, &mask);
    if (status == 0)
        status =
            posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSIGMASK);
    if (status == 0)
        status = Redirect(actions, input, STDIN_FILENO, O_RDONLY);
    if (status == 0)
        status = Redirect(actions, output, STDOUT_FILENO, O_WRONLY);
    pid_t child = -1;
    if (status == 0)
        status = posix_spawnp(&child, argv[0], &actions, &attributes,
                              const_cast<char* const*>(argv), environ);
    posix_spawn_file_actions_destroy(&actions);
    posix_spawnattr_destroy(&attributes);
    if (status != 0) {
        errno = status;
        return -1;
    }
    return child;
}

pid_t StartShell(const char* command, int input, int output) {
    if (command == nullptr) {
        errno = EINVAL;
        return -1;
    }
    const char* const argv[] = {"/bin/sh", "-c", command, nullptr};
    return Start(argv, input, output);
}

int Wait(pid_t child) {
    int status = 0;
    pid_t got;
    while ((got = waitpid(child, &status, 0)) < 0 && errno == EINTR) {
    }
    return got == child ? status : -1;
}

} // namespace childprocess
