// Running other programs: a shell command's success, one-way pipes to or from a shell command, a
// two-way pipe to a child shell, and running a tool as administrator once the user has
// authorised it (through pkexec and the desktop's authentication agent). Every child starts with
// SIGPIPE at its default action and no signal blocked, whatever this process has set for itself.
#pragma once

#include <sys/types.h>

#include <cstdio>

// Runs command with the shell; true when it ran and exited with status 0 (false when it was
// ended by a signal or could not run).
bool RunCommandLineProcess(const char* command);

// The parent reads the command's standard output.
class LPipeIn {
public:
    LPipeIn() = default;
    ~LPipeIn() { Close(); }
    LPipeIn(const LPipeIn&) = delete;
    LPipeIn& operator=(const LPipeIn&) = delete;
    bool _Open(const char* command);
    // Up to size bytes; 0 at the end of the output or on failure.
    size_t Read(void* buffer, size_t size);
    // Waits for the command; its wait status, or -1 when nothing is open. A command still
    // writing then ends by SIGPIPE.
    int Close();
    FILE* pStream = nullptr;
    int hFile = -1;
    pid_t pid = -1; // the shell running the command
};

// The parent writes to the command's standard input.
class LPipeOut {
public:
    LPipeOut() = default;
    ~LPipeOut() { Close(); }
    LPipeOut(const LPipeOut&) = delete;
    LPipeOut& operator=(const LPipeOut&) = delete;
    bool _Open(const char* command);
    // True when all size bytes were written.
    bool Write(const void* data, size_t size);
    // Closes the command's input and waits for it; its wait status, or -1 when nothing is open.
    int Close();
    FILE* pStream = nullptr;
    int hFile = -1;
    pid_t pid = -1; // the shell running the command
};

// A child shell running command, with its standard output and input connected to the parent.
class LPipeInOut {
public:
    LPipeInOut() = default;
    ~LPipeInOut() { Close(); }
    LPipeInOut(const LPipeInOut&) = delete;
    LPipeInOut& operator=(const LPipeInOut&) = delete;
    // The two numbers are accepted and not used.
    bool _Open(const char* command, unsigned long, unsigned long);
    // Reads what the child wrote (up to size bytes; 0 at its end); writes to its input.
    ssize_t Read(void* buffer, size_t size);
    ssize_t Write(const void* data, size_t size);
    // Closes the child's input, so a filter sees the end of its data.
    void CloseWrite();
    // Closes both ends and waits for the child; its wait status, or -1 when none runs.
    int Close();
    int hRead = -1;  // the child's standard output
    int hWrite = -1; // the child's standard input
    pid_t pid = -1;
};

// Runs tool with arguments (a null-terminated list, without the tool itself) as administrator
// after the user authorised it; with echo, copies the tool's output to standard output. False
// for an empty tool path, a refused or cancelled authorisation, or a tool that could not run;
// the tool's own exit status does not count, except 126 and 127, which pkexec uses for a
// refusal and so cannot be told apart from one.
bool LRunCommandWithPrivilege(const char* tool, char* const* arguments, bool echo);
bool LRunCommandWithPrivilege(const char* tool, const char* const* arguments, bool echo);
// The same for a command line: the first argument is the tool (blanks separate arguments,
// double quotes group, a backslash before a space keeps the space).
bool LRunCommandWithPrivilege(const char* commandLine, bool echo);

// The program that asks for authorisation and runs the tool: "pkexec". Tests may point it at
// another launcher.
extern const char* gLPrivilegeLauncher;
