// The process's connection to the PipeWire daemon: one thread loop, one context, and the
// registry's camera and sound-source nodes with their properties and enumerated formats. Made
// on the first listing and again on a later one after the daemon went away or did not answer.
#pragma once

#include <pipewire/pipewire.h>

#include <memory>
#include <string>
#include <vector>

#include "platform/devices/pipewire/pwformats.h"

namespace platform::pipewire {

// A Video/Source or Audio/Source node of the registry.
struct NodeInfo {
    uint32_t id = 0;         // the registry's, valid while the node stays
    std::string name;        // node.name, stable across daemon restarts
    std::string displayName; // node.description, else node.nick, else node.name
    std::string target;      // what a stream's target.object names: its object serial
    std::string identity;    // the device node or ALSA card and PCM it reaches; see DeviceInfo
    bool isCamera = false;   // else a sound source
    std::vector<NodeFormat> formats;
};

// Told, under the loop's lock on the loop's thread, that a node went away or the connection
// broke (nodeId is then SPA_ID_INVALID).
class NodeWatcher {
public:
    virtual ~NodeWatcher() = default;
    virtual void NodeGone(uint32_t nodeId) = 0;
};

class Connection {
public:
    // The process's connection (its loop thread runs until the library is unloaded).
    static Connection& Shared();

    // The nodes now, connecting first when not connected: through the camera portal when it
    // is wanted, else the daemon's own socket. Empty with `problem` set to a sentence when the
    // portal failed; empty without a problem when no daemon answers (tried again next time).
    std::vector<NodeInfo> Nodes(std::string& problem);
    // Whether the node of that name is in the registry now (without connecting).
    bool HasNode(const std::string& name);
    // The node of that name as last listed; false when it is not there.
    bool FindNode(const std::string& name, NodeInfo& info);

    pw_thread_loop* Loop() const { return loop; }
    // Under the loop's lock: the core of the current connection, null when not connected.
    pw_core* Core() const { return core; }
    // Under the loop's lock: watchers are told of nodes going and of the connection breaking.
    void Watch(NodeWatcher* watcher);
    void Unwatch(NodeWatcher* watcher);

    ~Connection();

private:
    Connection();
    struct Node;
    bool Connect(std::string& problem);
    void Disconnect();
    bool Roundtrip(double deadline);
    void NodesGone(uint32_t id);

    static void OnCoreDone(void* data, uint32_t id, int seq);
    static void OnCoreError(void* data, uint32_t id, int seq, int res, const char* message);
    static void OnGlobal(void* data, uint32_t id, uint32_t permissions, const char* type,
                         uint32_t version, const spa_dict* props);
    static void OnGlobalRemove(void* data, uint32_t id);
    static void OnNodeInfo(void* data, const pw_node_info* info);
    static void OnNodeParam(void* data, int seq, uint32_t id, uint32_t index, uint32_t next,
                            const spa_pod* param);

    pw_thread_loop* loop = nullptr;
    pw_context* context = nullptr;
    pw_core* core = nullptr;
    pw_registry* registry = nullptr;
    spa_hook coreListener{}, registryListener{};
    bool broken = false;
    int doneSeq = -1; // the last sync answered
    std::vector<std::unique_ptr<Node>> nodes;
    std::vector<NodeWatcher*> watchers;
};

} // namespace platform::pipewire
