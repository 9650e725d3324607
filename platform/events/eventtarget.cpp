// Event targets and their handlers: the application target, on which the library installs its
// handlers, and the dispatcher target the event loop sends every received event to.
#include "platform/events.h"

#include <atomic>
#include <memory>
#include <mutex>
#include <vector>

struct OpaqueEventTargetRef {};

namespace {

struct Handler {
    EventTargetRef target;
    EventHandlerUPP proc;
    std::vector<EventTypeSpec> types;
    void* userData;
    // Set by RemoveEventHandler, so a dispatch that copied the list before the removal skips it.
    std::atomic<bool> removed{false};

    bool Handles(EventRef event) const {
        for (const auto& type : types) {
            if (type.eventClass == GetEventClass(event) && type.eventKind == GetEventKind(event))
                return true;
        }
        return false;
    }
};

struct HandlerTable {
    std::mutex lock;
    std::vector<std::shared_ptr<Handler>> handlers; // oldest first
};

OpaqueEventTargetRef gApplicationTarget;
OpaqueEventTargetRef gDispatcherTarget;

HandlerTable& Table() {
    // Never destroyed: handlers may be removed by exit-time destructors.
    static HandlerTable* table = new HandlerTable;
    return *table;
}

} // namespace

EventTargetRef GetApplicationEventTarget() {
    return &gApplicationTarget;
}
EventTargetRef GetEventDispatcherTarget() {
    return &gDispatcherTarget;
}

OSStatus InstallEventHandler(EventTargetRef target, EventHandlerUPP handler, ItemCount numTypes,
                             const EventTypeSpec* list, void* userData, EventHandlerRef* outRef) {
    if (target == nullptr || handler == nullptr || (numTypes > 0 && list == nullptr))
        return paramErr;
    auto entry = std::make_shared<Handler>();
    entry->target = target;
    entry->proc = handler;
    entry->types.assign(list, list + numTypes);
    entry->userData = userData;
    {
        std::lock_guard<std::mutex> hold(Table().lock);
        Table().handlers.push_back(entry);
    }
    if (outRef != nullptr)
        *outRef = reinterpret_cast<EventHandlerRef>(entry.get());
    return noErr;
}

OSStatus RemoveEventHandler(EventHandlerRef handlerRef) {
    auto& table = Table();
    std::lock_guard<std::mutex> hold(table.lock);
    for (auto it = table.handlers.begin(); it != table.handlers.end(); ++it) {
        if (reinterpret_cast<EventHandlerRef>(it->get()) == handlerRef) {
            (*it)->removed = true;
            table.handlers.erase(it);
            return noErr;
        }
    }
    return paramErr;
}

OSStatus SendEventToEventTarget(EventRef event, EventTargetRef target) {
    if (event == nullptr || target == nullptr)
        return paramErr;
    // The dispatcher hands events on to the application, which is every event's target here.
    if (target == &gDispatcherTarget)
        target = &gApplicationTarget;
    std::vector<std::shared_ptr<Handler>> chain;
    {
        auto& table = Table();
        std::lock_guard<std::mutex> hold(table.lock);
        for (auto it = table.handlers.rbegin(); it != table.handlers.rend(); ++it) {
            if ((*it)->target == target && (*it)->Handles(event))
                chain.push_back(*it);
        }
    }
    for (const auto& handler : chain) {
        if (handler->removed)
            continue;
        OSStatus result = handler->proc(reinterpret_cast<EventHandlerCallRef>(handler.get()), event,
                                        handler->userData);
        if (result != eventNotHandledErr)
            return result;
    }
    return eventNotHandledErr;
}
