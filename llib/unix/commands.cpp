#include "llib/unix/commands.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "llib/gen/commandlineparser.h"

const char* gLPrivilegeLauncher = "pkexec";

namespace {

// What pkexec answers when the user dismissed or failed authorisation (126) or when it could
// not run the tool or was not authorised (127).
constexpr int kAuthorisationDismissed = 126;
constexpr int kNotAuthorised = 127;

void CloseOnExec(int fd) {
    fcntl(fd, F_SETFD, FD_CLOEXEC);
}

void CloseAll(std::initializer_list<int> fds) {
    for (int fd : fds)
        if (fd >= 0)
            close(fd);
}

} // namespace

bool RunCommandLineProcess(const char* command) {
    if (command == nullptr)
        return false;
    const int status = system(command);
    // A signal, or a system() that failed (-1 has every low bit set).
    if ((status & 0x7F) != 0)
        return false;
    return (status >> 8) == 0;
}

namespace {

// popen in the given mode into stream and fd; the descriptor is kept from later children.
bool OpenPipe(const char* command, const char* mode, FILE*& stream, int& fd) {
    stream = command != nullptr ? popen(command, mode) : nullptr;
    fd = stream != nullptr ? fileno(stream) : -1;
    if (fd >= 0)
        CloseOnExec(fd);
    return stream != nullptr;
}

int ClosePipe(FILE*& stream, int& fd) {
    if (stream == nullptr)
        return -1;
    const int status = pclose(stream);
    stream = nullptr;
    fd = -1;
    return status;
}

} // namespace

bool LPipeIn::_Open(const char* command) {
    Close();
    return OpenPipe(command, "r", pStream, hFile);
}

size_t LPipeIn::Read(void* buffer, size_t size) {
    return pStream != nullptr ? fread(buffer, 1, size, pStream) : 0;
}

int LPipeIn::Close() {
    return ClosePipe(pStream, hFile);
}

bool LPipeOut::_Open(const char* command) {
    Close();
    return OpenPipe(command, "w", pStream, hFile);
}

bool LPipeOut::Write(const void* data, size_t size) {
    return pStream != nullptr && fwrite(data, 1, size, pStream) == size && fflush(pStream) == 0;
}

int LPipeOut::Close() {
    return ClosePipe(pStream, hFile);
}

bool LPipeInOut::_Open(const char* command, unsigned long, unsigned long) {
    Close();
    if (command == nullptr)
        return false;
    int output[2] = {-1, -1}, input[2] = {-1, -1};
    if (pipe(output) != 0)
        return false;
    if (pipe(input) != 0) {
        CloseAll({output[0], output[1]});
        return false;
    }
    const pid_t child = fork();
    if (child < 0) {
        CloseAll({output[0], output[1], input[0], input[1]});
        return false;
    }
    if (child == 0) {
        dup2(output[1], STDOUT_FILENO);
        dup2(input[0], STDIN_FILENO);
        CloseAll({output[0], output[1], input[0], input[1]});
        execl("/bin/sh", "sh", "-c", command, static_cast<char*>(nullptr));
        _exit(1);
    }
    close(output[1]);
    close(input[0]);
    hRead = output[0];
    hWrite = input[1];
    CloseOnExec(hRead);
    CloseOnExec(hWrite);
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
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
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
    if (pipe(output) != 0)
        return false;
    const pid_t child = fork();
    if (child < 0) {
        CloseAll({output[0], output[1]});
        return false;
    }
    if (child == 0) {
        dup2(output[1], STDOUT_FILENO);
        CloseAll({output[0], output[1]});
        execvp(argv[0], const_cast<char* const*>(argv.data()));
        _exit(kNotAuthorised); // no launcher: as if the tool could not be run
    }
    close(output[1]);
    char buffer[260];
    ssize_t got;
    while ((got = read(output[0], buffer, sizeof buffer)) > 0 || (got < 0 && errno == EINTR))
        if (got > 0 && echo)
            fwrite(buffer, 1, static_cast<size_t>(got), stdout);
    if (echo)
        fflush(stdout);
    close(output[0]);
    int status = 0;
    while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
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
