#include "support/pipewirelab.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <thread>
#include <vector>

#include <pipewire/extensions/metadata.h>
#include <pipewire/pipewire.h>

namespace {

using Clock = std::chrono::steady_clock;
constexpr auto kDeadline = std::chrono::seconds(30);

// WirePlumber 0.4 reads these after its own defaults and before it enables what they name.
const char* const kNoMainMonitors = "alsa_monitor.enabled = false\n"
                                    "v4l2_monitor.enabled = false\n"
                                    "libcamera_monitor.enabled = false\n";
const char* const kNoBluetooth = "bluez_monitor.enabled = false\n";

// A session bus of the lab's own that starts no service by itself: with the machine's session
// configuration a portal installed on the machine would be started on demand, where the tests
// want only the mock one (or none). %s is the socket's path.
const char* const kBusConfig =
    "<!DOCTYPE busconfig PUBLIC \"-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN\"\n"
    " \"http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd\">\n"
    "<busconfig><type>session</type><auth>EXTERNAL</auth><listen>unix:path=%s</listen>\n"
    "<policy context=\"default\"><allow send_destination=\"*\" eavesdrop=\"true\"/>\n"
    "<allow eavesdrop=\"true\"/><allow own=\"*\"/></policy></busconfig>\n";

bool Installed(const char* program) {
    const char* path = getenv("PATH");
    std::string folders = path ? path : "/usr/bin:/bin";
    size_t start = 0;
    while (start <= folders.size()) {
        const size_t end = std::min(folders.find(':', start), folders.size());
        const std::string candidate = folders.substr(start, end - start) + "/" + program;
        if (access(candidate.c_str(), X_OK) == 0)
            return true;
        start = end + 1;
    }
    return false;
}

void SaveAndSet(const char* name, const std::string& value, std::string& saved, bool& had) {
    const char* old = getenv(name);
    had = old != nullptr;
    saved = had ? old : "";
    setenv(name, value.c_str(), 1);
}

void Restore(const char* name, const std::string& saved, bool had) {
    if (had)
        setenv(name, saved.c_str(), 1);
    else
        unsetenv(name);
}

// Waits until the daemon the environment names lists a global of `type` whose property `key` is
// `value` (any of that type when key is null): the daemon and whoever made the global are up.
bool WaitForGlobal(const char* type, const char* key, const char* value) {
    struct Wait {
        const char *type, *key, *value;
        pw_main_loop* loop;
        bool found = false;
    };
    pw_init(nullptr, nullptr);
    const auto end = Clock::now() + kDeadline;
    while (Clock::now() < end) {
        pw_main_loop* loop = pw_main_loop_new(nullptr);
        pw_context* context = pw_context_new(pw_main_loop_get_loop(loop), nullptr, 0);
        pw_core* core = pw_context_connect(context, nullptr, 0);
        Wait wait{type, key, value, loop};
        if (core != nullptr) {
            static const pw_registry_events events = {
                .version = PW_VERSION_REGISTRY_EVENTS,
                .global =
                    [](void* data, uint32_t, uint32_t, const char* type, uint32_t,
                       const spa_dict* props) {
                        auto& wait = *static_cast<Wait*>(data);
                        const char* value =
                            wait.key && props ? spa_dict_lookup(props, wait.key) : nullptr;
                        if (strcmp(type, wait.type) == 0 &&
                            (wait.key == nullptr || (value && strcmp(value, wait.value) == 0))) {
                            wait.found = true;
                            pw_main_loop_quit(wait.loop);
                        }
                    },
                .global_remove = nullptr};
            static const pw_core_events coreEvents = [] {
                pw_core_events events{};
                events.version = PW_VERSION_CORE_EVENTS;
                events.error = [](void* data, uint32_t id, int, int, const char*) {
                    if (id == PW_ID_CORE)
                        pw_main_loop_quit(static_cast<Wait*>(data)->loop);
                };
                return events;
            }();
            pw_registry* registry = pw_core_get_registry(core, PW_VERSION_REGISTRY, 0);
            spa_hook registryListener{}, coreListener{};
            pw_registry_add_listener(registry, &registryListener, &events, &wait);
            pw_core_add_listener(core, &coreListener, &coreEvents, &wait);
            spa_source* timer = pw_loop_add_timer(
                pw_main_loop_get_loop(loop),
                [](void* data, uint64_t) { pw_main_loop_quit(static_cast<Wait*>(data)->loop); },
                &wait);
            const auto left =
                std::chrono::duration_cast<std::chrono::nanoseconds>(end - Clock::now());
            timespec at{time_t(left.count() / 1000000000), long(left.count() % 1000000000)};
            pw_loop_update_timer(pw_main_loop_get_loop(loop), timer, &at, nullptr, false);
            pw_main_loop_run(loop);
            spa_hook_remove(&registryListener);
            spa_hook_remove(&coreListener);
            pw_proxy_destroy(reinterpret_cast<pw_proxy*>(registry));
            pw_core_disconnect(core);
        }
        pw_context_destroy(context);
        pw_main_loop_destroy(loop);
        if (wait.found)
            return true;
        if (core != nullptr)
            return false; // connected, and the deadline passed
        // The daemon is not listening yet.
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return false;
}

// Reads a line from `fd` within the deadline; false when it closes or the time is up.
bool ReadLine(int fd, std::string& line) {
    const auto end = Clock::now() + kDeadline;
    line.clear();
    for (;;) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - Clock::now());
        pollfd wait{fd, POLLIN, 0};
        if (left.count() <= 0 || poll(&wait, 1, int(left.count())) <= 0)
            return false;
        char c;
        if (read(fd, &c, 1) != 1)
            return false;
        if (c == '\n')
            return true;
        line += c;
    }
}

} // namespace

std::string PipeWireLab::SkipReason() {
    for (const char* program : {"pipewire", "wireplumber"})
        if (!Installed(program))
            return std::string(program) + " is not installed (scripts/install-deps.sh installs it)";
    return "";
}

PipeWireLab::PipeWireLab() {
    if (!Start()) {
        StopSource();
        Stop(wireplumber, SIGTERM);
        Stop(pipewire, SIGTERM);
        Stop(bus, SIGTERM);
    }
}

PipeWireLab::~PipeWireLab() {
    StopSource();
    Stop(wireplumber, SIGTERM);
    Stop(pipewire, SIGTERM);
    Stop(bus, SIGTERM);
    Restore("XDG_RUNTIME_DIR", savedRuntime, hadRuntime);
    Restore("PIPEWIRE_RUNTIME_DIR", savedPipeWireRuntime, hadPipeWireRuntime);
    Restore("DBUS_SESSION_BUS_ADDRESS", savedBus, hadBus);
}

bool PipeWireLab::Start() {
    if (folder.path.empty())
        return problem = "no temporary folder", false;
    // The lab's own runtime folder is where the daemons put their sockets; the remote named
    // by the caller's environment would point elsewhere.
    SaveAndSet("XDG_RUNTIME_DIR", folder.path, savedRuntime, hadRuntime);
    SaveAndSet("PIPEWIRE_RUNTIME_DIR", folder.path, savedPipeWireRuntime, hadPipeWireRuntime);
    unsetenv("PIPEWIRE_REMOTE");

    int address[2];
    if (pipe2(address, O_CLOEXEC) != 0)
        return problem = "no pipe", false;
    const std::string listen = "--address=unix:path=" + folder / "bus";
    WriteFile(folder / "bus.conf", kBusConfig);
    const std::string config = "--config-file=" + folder / "bus.conf";
    const char* busArguments[] = {"dbus-daemon",     config.c_str(), "--nofork",
                                  "--print-address", listen.c_str(), nullptr};
    bus = Spawn(folder / "dbus.log", busArguments, -1, address[1]);
    close(address[1]);
    std::string line;
    const bool busUp = ReadLine(address[0], line);
    close(address[0]);
    if (!busUp)
        return problem = "the session bus did not start: " + ReadFile(folder / "dbus.log"), false;
    SaveAndSet("DBUS_SESSION_BUS_ADDRESS", line, savedBus, hadBus);

    const char* pipewireArguments[] = {"pipewire", nullptr};
    pipewire = Spawn(folder / "pipewire.log", pipewireArguments);
    if (!WaitForGlobal(PW_TYPE_INTERFACE_Core, nullptr, nullptr))
        return problem = "pipewire did not answer: " + ReadFile(folder / "pipewire.log"), false;

    mkdir((folder / "config").c_str(), 0700);
    mkdir((folder / "config/wireplumber").c_str(), 0700);
    for (const char* part : {"main", "bluetooth"}) {
        const std::string dir = folder / "config/wireplumber/" + part + ".lua.d";
        mkdir(dir.c_str(), 0700);
        WriteFile(dir + "/60-tavix-lab.lua",
                  strcmp(part, "main") == 0 ? kNoMainMonitors : kNoBluetooth);
    }
    const std::string configHome = "XDG_CONFIG_HOME=" + folder / "config";
    const char* wireplumberArguments[] = {"wireplumber", nullptr};
    const char* wireplumberEnvironment[] = {configHome.c_str(), nullptr};
    wireplumber =
        Spawn(folder / "wireplumber.log", wireplumberArguments, -1, -1, wireplumberEnvironment);
    // WirePlumber publishes the default-nodes metadata once its modules are loaded.
    if (!WaitForGlobal(PW_TYPE_INTERFACE_Metadata, PW_KEY_METADATA_NAME, "default"))
        return problem = "wireplumber did not start: " + ReadFile(folder / "wireplumber.log"),
               false;
    return true;
}

bool PipeWireLab::StartSource() {
    if (source > 0)
        return true;
    int input[2], output[2];
    if (pipe2(input, O_CLOEXEC) != 0)
        return false;
    if (pipe2(output, O_CLOEXEC) != 0) {
        close(input[0]);
        close(input[1]);
        return false;
    }
    const char* arguments[] = {TAVIX_PW_TEST_SOURCE, nullptr};
    source = Spawn(folder / "source.log", arguments, input[0], output[1]);
    close(input[0]);
    close(output[1]);
    sourceInput = input[1];
    std::string line;
    const bool ready = ReadLine(output[0], line) && line == "ready";
    close(output[0]);
    if (!ready)
        problem = "the test source did not start: " + ReadFile(folder / "source.log");
    return ready;
}

void PipeWireLab::StopSource(bool abruptly) {
    Stop(source, abruptly ? SIGKILL : SIGTERM);
    if (sourceInput >= 0)
        close(sourceInput);
    sourceInput = -1;
}

pid_t PipeWireLab::Spawn(const std::string& log, const char* const* arguments, int input,
                         int output, const char* const* environment) {
    // Everything the child needs is made before the fork: the library's threads may hold locks
    // the child would otherwise wait for.
    std::vector<char*> names;
    for (char** name = environ; *name; ++name)
        names.push_back(*name);
    for (; environment && *environment; ++environment)
        names.push_back(const_cast<char*>(*environment));
    names.push_back(nullptr);
    const int logFile = open(log.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    const int nothing = open("/dev/null", O_RDONLY | O_CLOEXEC);
    fflush(nullptr);
    const pid_t child = fork();
    if (child == 0) {
        // A test that dies takes its daemons with it.
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        dup2(input >= 0 ? input : nothing, STDIN_FILENO);
        dup2(output >= 0 ? output : logFile, STDOUT_FILENO);
        dup2(logFile, STDERR_FILENO);
        execvpe(arguments[0], const_cast<char* const*>(arguments), names.data());
        _exit(127);
    }
    close(logFile);
    close(nothing);
    return child;
}

void PipeWireLab::Stop(pid_t& child, int signal) {
    if (child <= 0)
        return;
    kill(child, signal);
    const auto end = Clock::now() + kDeadline;
    while (waitpid(child, nullptr, WNOHANG) == 0) {
        if (Clock::now() > end) {
            kill(child, SIGKILL);
            waitpid(child, nullptr, 0);
            break;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    child = -1;
}
