#include "llib/unix/commands.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "llib/gen/commandlineparser.h"
#include "llib/unix/childprocess.h"

const char* gLPrivilegeLauncher = "pkexec";

namespace {

// What pkexec answers when the user dismissed or failed authorisation (126) or when it could
// not run the tool or was not authorised (127).
constexpr int kAuthorisationDismissed = 126;
constexpr int kNotAuthorised = 127;

void CloseAll(std::initializer_list<int> fds) {
    for (int fd : fds)
        if (fd >= 0)
            close(fd);
}

} // namespace

bool RunCommandLineProcess(const char* command) {
    const pid_t child =
        childprocess::StartShell(command, childprocess::kInherit, childprocess::kInherit);
    if (child < 0)
        return false;
    const int status = childprocess::Wait(child);
    // A signal, or a failed wait (-1 has every low bit set).
    if ((status & 0x7F) != 0)
        return false;
    return (status >> 8) == 0;
}

namespace {

// A shell running command with a pipe to its standard output (reading) or from its standard
// input, and this end of it as stream and fd, kept from later children (close-on-exec).
bool OpenPipe(const char* command, bool reading, FILE*& stream, int& fd, pid_t& child) {
    stream = nullptr;
    fd = -1;
    child = -1;
    int ends[2];
    if (command == nullptr || pipe2(ends, O_CLOEXEC) != 0)
        return false;
    const int ours = reading ? ends[0] : ends[1];
    const int theirs = reading ? ends[1] : ends[0];
    const pid_t started = reading
                              ? childprocess::StartShell(command, childprocess::kInherit, theirs)
                              : childprocess::StartShell(command, theirs, childprocess::kInherit);
    close(theirs);
    if (started < 0) {
        close(ours);
        return false;
    }
    stream = fdopen(ours, reading ? "r" : "w");
    if (stream == nullptr) {
        close(ours); // the shell sees its pipe closed and ends
        childprocess::Wait(started);
        return false;
    }
    fd = ours;
    child = started;
    return true;
}

// Closes this end (so a writer still running gets SIGPIPE, a reader the end of its input) and
// waits for the shell: its wait status.
int ClosePipe(FILE*& stream, int& fd, pid_t& child) {
    if (stream == nullptr)
        return -1;
    fclose(stream);
    const int status = childprocess::Wait(child);
    stream = nullptr;
    fd = -1;
    child = -1;
    return status;
}

} // namespace

bool LPipeIn::_Open(const char* command) {
    Close();
    return OpenPipe(command, true, pStream, hFile, pid);
}

size_t LPipeIn::Read(void* buffer, size_t size) {
    return pStream != nullptr ? fread(buffer, 1, size, pStream) : 0;
}

int LPipeIn::Close() {
    return ClosePipe(pStream, hFile, pid);
}

bool LPipeOut::_Open(const char* command) {
    Close();
    return OpenPipe(command, false, pStream, hFile, pid);
}

bool LPipeOut::Write(const void* data, size_t size) {
    return pStream != nullptr && fwrite(data, 1, size, pStream) == size && fflush(pStream) == 0;
}

int LPipeOut::Close() {
    return ClosePipe(pStream, hFile, pid);
}

bool LPipeInOut::_Open(const char* command, unsigned long, unsigned long) {
    Close();
    if (command == nullptr)
        return false;
    // Every end is close-on-exec from the start: the child gets only its two as its standard
    // input and output, and no other child started meanwhile gets any.
    int output[2] = {-1, -1}, input[2] = {-1, -1};
    if (pipe2(output, O_CLOEXEC) != 0)
        return false;
    if (pipe2(input, O_CLOEXEC) != 0) {
        CloseAll({output[0], output[1]});
        return false;
    }
    const pid_t child = childprocess::StartShell(command, input[0], output[1]);
    CloseAll({output[1], input[0]});
    if (child < 0) {
        CloseAll({output[0], input[1]});
        return false;
    }
    hRead = output[0];
    hWrite = input[1];
    pid = child;
    return true;
}

ssize_t LPipeInOut::Read(void* buffer, size_t size) {
    return hRead >= 0 ? read(hRead, buffer, size) : -1;
}

ssize_t LPipeInOut::Write(const void* data, size_t size) {
    return hWrite >= 0 ? write(hWrite, data, size) : -1;
}

void LPipeInOut::CloseWrite() {
    CloseAll({hWrite});
    hWrite = -1;
}

int LPipeInOut::Close() {
    CloseAll({hRead, hWrite});
    hRead = hWrite = -1;
    if (pid < 0)
        return -1;
    const int status = childprocess::Wait(pid);
    pid = -1;
    return status;
}

bool LRunCommandWithPrivilege(const char* tool, char* const* arguments, bool echo) {
    if (tool == nullptr || tool[0] == 0)
        return false;
    std::vector<const char*> argv = {gLPrivilegeLauncher, tool};
    for (char* const* argument = arguments; argument != nullptr && *argument != nullptr; ++argument)
        argv.push_back(*argument);
    argv.push_back(nullptr);

    int output[2];
    if (pipe2(output, O_CLOEXEC) != 0)
        return false;
    const pid_t child = childprocess::Start(argv.data(), childprocess::kInherit, output[1]);
    close(output[1]);
    if (child < 0) {
        close(output[0]); // no launcher: as if the tool could not be run
        return false;
    }
    char buffer[260];
    ssize_t got;
    while ((got = read(output[0], buffer, sizeof buffer)) > 0 || (got < 0 && errno == EINTR))
        if (got > 0 && echo)
            fwrite(buffer, 1, static_cast<size_t>(got), stdout);
    if (echo)
        fflush(stdout);
    close(output[0]);
    const int status = childprocess::Wait(child);
    // The launcher's own failures; the tool's exit status is not collected.
    if (!WIFEXITED(status))
        return false;
    const int code = WEXITSTATUS(status);
    return code != kAuthorisationDismissed && code != kNotAuthorised;
}

bool LRunCommandWithPrivilege(const char* tool, const char* const* arguments, bool echo) {
    std::vector<char*> copies;
    for (const char* const* argument = arguments; argument != nullptr && *argument != nullptr;
         ++argument)
        copies.push_back(strdup(*argument));
    copies.push_back(nullptr);
    const bool ran = LRunCommandWithPrivilege(tool, copies.data(), echo);
    for (char* copy : copies)
        free(copy);
    return ran;
}

bool LRunCommandWithPrivilege(const char* commandLine, bool echo) {
    LCommandLineArgumentStringExpander expander(commandLine);
    char tool[260];
    snprintf(tool, sizeof tool, "%s", expander.Argument.GetText());
    std::vector<char*> arguments;
    while (expander.NextArgument())
        arguments.push_back(strdup(expander.Argument.GetText()));
    arguments.push_back(nullptr);
    const bool ran = LRunCommandWithPrivilege(tool, arguments.data(), echo);
    for (char* argument : arguments)
        free(argument);
    return ran;
}
