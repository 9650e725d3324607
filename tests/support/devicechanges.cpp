#include "support/devicechanges.h"

#include <gtest/gtest.h>

#include "support/tavix_helpers.h"

ChangeLog::ChangeLog() {
    EXPECT_TRUE(TavixDeviceSetChangeCallBack(Record, this));
}

ChangeLog::~ChangeLog() {
    TavixDeviceSetChangeCallBack(nullptr, nullptr);
}

void ChangeLog::Record(const char* name, const char* id, TavixDeviceMediaType type, bool arrived,
                       void* context) {
    auto* log = static_cast<ChangeLog*>(context);
    std::lock_guard<std::mutex> locked(log->mutex);
    log->changes.push_back({name, id, type, arrived});
}

std::set<std::string> ChangeLog::Wait(const std::string& part, bool arrived, size_t count,
                                      std::chrono::seconds patience) {
    std::set<std::string> ids;
    WaitUntil(
        [&] {
            ids.clear();
            for (const Change& change : Changes())
                if (change.arrived == arrived && change.id.find(part) != std::string::npos)
                    ids.insert(change.id);
            return ids.size() >= count;
        },
        patience);
    return ids;
}

std::vector<ChangeLog::Change> ChangeLog::Changes() {
    std::lock_guard<std::mutex> locked(mutex);
    return changes;
}

void ChangeLog::Clear() {
    std::lock_guard<std::mutex> locked(mutex);
    changes.clear();
}

std::vector<ChangeLog::Change> ListedWithIds(unsigned int flags) {
    std::vector<ChangeLog::Change> listed;
    TavixDeviceEnumerateWithUniqueIDs(
        [](const char* name, const char* id, TavixDeviceMediaType type, bool connected,
           void* context) {
            static_cast<std::vector<ChangeLog::Change>*>(context)->push_back(
                {name, id, type, connected});
            return true;
        },
        &listed, TavixDeviceMediaTypeAny, flags);
    return listed;
}

bool ListsAny(const std::set<std::string>& ids, unsigned int flags) {
    for (const ChangeLog::Change& device : ListedWithIds(flags))
        if (ids.count(device.id) != 0)
            return true;
    return false;
}
