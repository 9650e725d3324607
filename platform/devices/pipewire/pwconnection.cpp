#include "platform/devices/pipewire/pwconnection.h"

#include <spa/param/param.h>
#include <spa/utils/result.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <mutex>

#include "platform/devicemonitor.h"
#include "platform/devices/pipewire/pwportal.h"

namespace platform::pipewire {
namespace {

// How long a listing waits for the daemon to describe its nodes.
constexpr double kListingSeconds = 3;

std::string Property(const spa_dict* props, const char* key) {
    const char* value = props != nullptr ? spa_dict_lookup(props, key) : nullptr;
    return value != nullptr ? value : "";
}

std::string FirstProperty(const spa_dict* props, std::initializer_list<const char*> keys) {
    for (const char* key : keys) {
        std::string value = Property(props, key);
        if (!value.empty())
            return value;
    }
    return {};
}

// The hardware a node reaches, named as the V4L2 and ALSA backends name theirs.
std::string IdentityOf(const spa_dict* props, bool isCamera) {
    if (isCamera) {
        std::string path = Property(props, "api.v4l2.path");
        if (path.empty()) {
            path = Property(props, PW_KEY_OBJECT_PATH);
            path = path.compare(0, 5, "v4l2:") == 0 ? path.substr(5) : "";
        }
        return path.compare(0, 5, "/dev/") == 0 ? path : "";
    }
    const std::string card =
        FirstProperty(props, {"api.alsa.pcm.card", "api.alsa.card", "alsa.card"});
    const std::string device = FirstProperty(props, {"api.alsa.pcm.device", "alsa.device"});
    return card.empty() || device.empty() ? "" : "alsa:" + card + "," + device;
}

const pw_core_events kCoreEvents = [] {
    pw_core_events events{};
    events.version = PW_VERSION_CORE_EVENTS;
    return events;
}();

} // namespace

struct Connection::Node {
    Connection* owner = nullptr;
    NodeInfo info;
    pw_proxy* proxy = nullptr;
    spa_hook listener{};
    bool ready = false;              // described, formats read
    int readySeq = -1;               // the sync whose answer completes the formats being read
    std::vector<NodeFormat> pending; // formats being read
};

Connection& Connection::Shared() {
    static Connection connection;
    return connection;
}

Connection::Connection() {
    pw_init(nullptr, nullptr);
    loop = pw_thread_loop_new("tavix-pipewire", nullptr);
    if (loop != nullptr)
        context = pw_context_new(pw_thread_loop_get_loop(loop), nullptr, 0);
    if (context == nullptr || pw_thread_loop_start(loop) != 0)
        context = nullptr;
}

Connection::~Connection() {
    // Only the thread ends: streams and pictures still held elsewhere may use the objects while
    // the process exits, and the library's code must not run on after it is unloaded.
    if (loop != nullptr)
        pw_thread_loop_stop(loop);
}

void Connection::OnCoreDone(void* data, uint32_t id, int seq) {
    auto* self = static_cast<Connection*>(data);
    if (id != PW_ID_CORE)
        return;
    self->doneSeq = seq;
    for (auto& node : self->nodes)
        if (node->readySeq == seq) {
            node->info.formats = std::move(node->pending);
            node->pending.clear();
            node->readySeq = -1;
            if (!node->ready)
                WakeDeviceMonitor();
            node->ready = true;
        }
    pw_thread_loop_signal(self->loop, false);
}

void Connection::OnCoreError(void* data, uint32_t id, int, int res, const char*) {
    auto* self = static_cast<Connection*>(data);
    if (id != PW_ID_CORE || res != -EPIPE)
        return;
    // The daemon went away: every node with it.
    self->broken = true;
    self->NodesGone(SPA_ID_INVALID);
    WakeDeviceMonitor();
    pw_thread_loop_signal(self->loop, false);
}

void Connection::OnNodeInfo(void* data, const pw_node_info* info) {
    auto* node = static_cast<Node*>(data);
    Connection* self = node->owner;
    if ((info->change_mask & PW_NODE_CHANGE_MASK_PROPS) != 0) {
        const spa_dict* props = info->props;
        node->info.name = Property(props, PW_KEY_NODE_NAME);
        node->info.displayName =
            FirstProperty(props, {PW_KEY_NODE_DESCRIPTION, PW_KEY_NODE_NICK, PW_KEY_NODE_NAME});
        node->info.target = FirstProperty(props, {PW_KEY_OBJECT_SERIAL, PW_KEY_NODE_NAME});
        node->info.identity = IdentityOf(props, node->info.isCamera);
    }
    if ((info->change_mask & PW_NODE_CHANGE_MASK_PARAMS) != 0 || !node->ready) {
        // The formats are read again whenever the node's params change; the old ones stay
        // listed until the new ones are complete.
        node->pending.clear();
        for (uint32_t i = 0; i < info->n_params; ++i)
            if (info->params[i].id == SPA_PARAM_EnumFormat &&
                (info->params[i].flags & SPA_PARAM_INFO_READ) != 0)
                pw_node_enum_params(reinterpret_cast<pw_node*>(node->proxy), 0,
                                    SPA_PARAM_EnumFormat, 0, UINT32_MAX, nullptr);
        node->readySeq = pw_core_sync(self->core, PW_ID_CORE, 0);
    }
}

void Connection::OnNodeParam(void* data, int, uint32_t id, uint32_t, uint32_t,
                             const spa_pod* param) {
    auto* node = static_cast<Node*>(data);
    if (id == SPA_PARAM_EnumFormat)
        ParseEnumFormat(param, node->pending);
}

void Connection::OnGlobal(void* data, uint32_t id, uint32_t, const char* type, uint32_t,
                          const spa_dict* props) {
    auto* self = static_cast<Connection*>(data);
    if (strcmp(type, PW_TYPE_INTERFACE_Node) != 0)
        return;
    const std::string mediaClass = Property(props, PW_KEY_MEDIA_CLASS);
    if (mediaClass != "Video/Source" && mediaClass != "Audio/Source")
        return;
    auto node = std::make_unique<Node>();
    node->owner = self;
    node->info.id = id;
    node->info.isCamera = mediaClass == "Video/Source";
    node->proxy = static_cast<pw_proxy*>(
        pw_registry_bind(self->registry, id, PW_TYPE_INTERFACE_Node, PW_VERSION_NODE, 0));
    if (node->proxy == nullptr)
        return;
    static const pw_node_events events = [] {
        pw_node_events e{};
        e.version = PW_VERSION_NODE_EVENTS;
        e.info = OnNodeInfo;
        e.param = OnNodeParam;
        return e;
    }();
    pw_proxy_add_object_listener(node->proxy, &node->listener, &events, node.get());
    self->nodes.push_back(std::move(node));
}

void Connection::OnGlobalRemove(void* data, uint32_t id) {
    auto* self = static_cast<Connection*>(data);
    auto found =
        std::find_if(self->nodes.begin(), self->nodes.end(),
                     [id](const std::unique_ptr<Node>& node) { return node->info.id == id; });
    if (found == self->nodes.end())
        return;
    spa_hook_remove(&(*found)->listener);
    pw_proxy_destroy((*found)->proxy);
    self->nodes.erase(found);
    self->NodesGone(id);
    WakeDeviceMonitor();
}

void Connection::NodesGone(uint32_t id) {
    // A watcher may unwatch itself while told.
    const std::vector<NodeWatcher*> told = watchers;
    for (NodeWatcher* watcher : told)
        watcher->NodeGone(id);
}

void Connection::Watch(NodeWatcher* watcher) {
    watchers.push_back(watcher);
}

void Connection::Unwatch(NodeWatcher* watcher) {
    watchers.erase(std::remove(watchers.begin(), watchers.end(), watcher), watchers.end());
}

bool Connection::Connect(std::string& problem) {
    if (context == nullptr)
        return false;
    int fd = -1;
    if (CameraPortalWanted()) {
        // The portal may ask the user: the loop is not held meanwhile.
        fd = OpenCameraPortalRemote(problem);
        if (fd < 0)
            return false;
    }
    pw_thread_loop_lock(loop);
    core = fd >= 0 ? pw_context_connect_fd(context, fd, nullptr, 0)
                   : pw_context_connect(context, nullptr, 0);
    if (core == nullptr) {
        pw_thread_loop_unlock(loop);
        if (fd >= 0)
            problem = "The camera portal's PipeWire connection does not answer.";
        return false;
    }
    broken = false;
    static const pw_core_events coreEvents = [] {
        pw_core_events e = kCoreEvents;
        e.done = OnCoreDone;
        e.error = OnCoreError;
        return e;
    }();
    static const pw_registry_events registryEvents = [] {
        pw_registry_events e{};
        e.version = PW_VERSION_REGISTRY_EVENTS;
        e.global = OnGlobal;
        e.global_remove = OnGlobalRemove;
        return e;
    }();
    pw_core_add_listener(core, &coreListener, &coreEvents, this);
    registry = pw_core_get_registry(core, PW_VERSION_REGISTRY, 0);
    pw_registry_add_listener(registry, &registryListener, &registryEvents, this);
    pw_thread_loop_unlock(loop);
    return true;
}

void Connection::Disconnect() {
    for (auto& node : nodes) {
        spa_hook_remove(&node->listener);
        pw_proxy_destroy(node->proxy);
    }
    nodes.clear();
    NodesGone(SPA_ID_INVALID);
    spa_hook_remove(&registryListener);
    pw_proxy_destroy(reinterpret_cast<pw_proxy*>(registry));
    registry = nullptr;
    spa_hook_remove(&coreListener);
    pw_core_disconnect(core);
    core = nullptr;
}

bool Connection::Roundtrip(double deadline) {
    const int seq = pw_core_sync(core, PW_ID_CORE, 0);
    while (!broken && doneSeq != seq) {
        if (MonotonicSeconds() >= deadline)
            return false;
        pw_thread_loop_timed_wait(loop, 1);
    }
    return !broken;
}

std::vector<NodeInfo> Connection::Nodes(std::string& problem) {
    static std::mutex listing; // one listing at a time: the portal is asked once
    std::lock_guard<std::mutex> one(listing);
    problem.clear();
    if (loop == nullptr)
        return {};
    pw_thread_loop_lock(loop);
    if (core != nullptr && broken)
        Disconnect();
    const bool connected = core != nullptr;
    pw_thread_loop_unlock(loop);
    if (!connected && !Connect(problem))
        return {};

    std::vector<NodeInfo> result;
    pw_thread_loop_lock(loop);
    // Each round answers one step: the globals, their descriptions, their formats.
    const double deadline = MonotonicSeconds() + kListingSeconds;
    auto described = [this] {
        return std::all_of(nodes.begin(), nodes.end(),
                           [](const std::unique_ptr<Node>& node) { return node->ready; });
    };
    bool answered = Roundtrip(deadline);
    while (answered && !described())
        answered = Roundtrip(deadline);
    if (!broken)
        for (const auto& node : nodes)
            if (node->ready && !node->info.name.empty())
                result.push_back(node->info);
    pw_thread_loop_unlock(loop);
    return result;
}

bool Connection::FindNode(const std::string& name, NodeInfo& info) {
    if (loop == nullptr)
        return false;
    pw_thread_loop_lock(loop);
    bool found = false;
    if (core != nullptr && !broken)
        for (const auto& node : nodes)
            if (node->ready && node->info.name == name) {
                info = node->info;
                found = true;
                break;
            }
    pw_thread_loop_unlock(loop);
    return found;
}

bool Connection::HasNode(const std::string& name) {
    NodeInfo info;
    return FindNode(name, info);
}

} // namespace platform::pipewire
