// Starting other programs with the signal state a program expects to begin with: SIGPIPE at
// its default action (this library ignores it for itself, and an ignored signal stays ignored
// across exec) and no signal blocked (a blocked set is inherited too). Every program the
// library starts goes through here.
#pragma once

#include <sys/types.h>

namespace childprocess {

// For a standard descriptor of the child: this process's own, or /dev/null.
constexpr int kInherit = -1;
constexpr int kNullDevice = -2;

// Starts argv[0] (found through PATH when it holds no '/') with argv, a null-terminated list;
// the child's standard input and output are input and output (kInherit, kNullDevice or a
// descriptor, which may be close-on-exec). The child's id, or -1 with errno set when it could
// not be started or the program could not be run.
pid_t Start(const char* const* argv, int input, int output);

// The same for command run by /bin/sh -c.
pid_t StartShell(const char* command, int input, int output);

// Waits for child to end, through interruptions: its wait status, or -1 with errno set.
int Wait(pid_t child);

} // namespace childprocess
