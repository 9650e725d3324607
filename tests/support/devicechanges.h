// Devices that come and go, for tests that watch them through the C interface.
#pragma once

#include <chrono>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "llib/mac/tavix.h"

// The library's change callback for its lifetime (cleared at the end), keeping what it is told.
class ChangeLog {
public:
    struct Change {
        std::string name, id;
        TavixDeviceMediaType type;
        bool arrived;
    };
    ChangeLog();
    ~ChangeLog();
    // The ids told arriving (or leaving) that contain `part`, once there are `count` of them or
    // `patience` has passed.
    std::set<std::string> Wait(const std::string& part, bool arrived, size_t count = 1,
                               std::chrono::seconds patience = std::chrono::seconds(90));
    std::vector<Change> Changes();
    void Clear();
    // The callback; context is the log.
    static void Record(const char* name, const char* id, TavixDeviceMediaType type, bool arrived,
                       void* context);

private:
    std::mutex mutex;
    std::vector<Change> changes;
};

// The devices TavixDeviceEnumerateWithUniqueIDs lists with `flags` (`arrived`: connected).
std::vector<ChangeLog::Change> ListedWithIds(unsigned int flags = 0);
// Whether any of `ids` is listed (as connected, unless flags bit 0).
bool ListsAny(const std::set<std::string>& ids, unsigned int flags = 0);
