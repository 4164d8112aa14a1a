#pragma once

#include "LoggerManager.h"

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <type_traits>
#include <typeinfo>

enum HandlersFuncKeys {
    SWITCH_LANG = 0,
    QUIT_APP = 1,
    CONNECT_DIALOG_OPEN = 2,
    DISCONNECT = 3,
    SELECT_STM32 = 4,
    SELECT_ESP32 = 5,
    SEARCH_FILE_STM32 = 6,
    SEARCH_FILE_ESP32 = 7,
    UPLOAD_FIRMWARE = 8,
    SEARCH_DEVICES = 9,
    SHOW_DEVICE_LIST = 10,
    GET_INFO_FIELDS_RESPOND = 11,
    // 12 is left free.
    SET_CURRENT_DEVICE_ADDR = 13,
    UPDATE_LOADING_STATUS = 14,
    SET_LISTENER_TIMEOUT = 15,
};

enum LoadStage { Erase = 1, Write = 2 };

// Where widgets, protocol classes and the window meet without knowing each
// other: a key is raised, the function registered under it runs at once on
// the raising thread.
class GlobalHandlerEvents {
public:
    enum HandlerEventsStatus { Success = 0, Failure = 1 };

    static GlobalHandlerEvents& getInstance();
    virtual ~GlobalHandlerEvents() = default;

    void addHandler(HandlersFuncKeys key, std::function<HandlerEventsStatus()> handler);
    HandlerEventsStatus _executeHandler(HandlersFuncKeys key);

    template <typename... Args>
    void addHandlerWithArgs(HandlersFuncKeys key,
                            std::type_identity_t<std::function<HandlerEventsStatus(Args...)>> handler);

    template <typename... Args>
    HandlerEventsStatus _executeHandlerWithArgs(HandlersFuncKeys key, std::type_identity_t<Args>... args);

    template <typename... Args>
    std::map<HandlersFuncKeys, std::function<HandlerEventsStatus(Args...)>>& getHandlerMapWithArgs();

    // The key's text, as the log lines show it.
    std::string keyName(HandlersFuncKeys key);

    // Drops every registered handler. Handlers hold a pointer to their
    // owner, so a process that builds a second owner (the tests do) must
    // clear the first one's handlers.
    void clearAllHandlers();

    GlobalHandlerEvents(const GlobalHandlerEvents&) = delete;
    GlobalHandlerEvents& operator=(const GlobalHandlerEvents&) = delete;

private:
    GlobalHandlerEvents();

    void logLine(const std::string& message, BaseLogger::MessageType type);
    // A line about a key; the key's name is looked up only when a sink takes it.
    void logKey(BaseLogger::MessageType type, const char* before, HandlersFuncKeys key,
                const char* after = "");
    void clearArgumentHandlers();

    static std::map<HandlersFuncKeys, std::string> keysNamesDict;
    static std::map<HandlersFuncKeys, std::function<HandlerEventsStatus()>> handlers;
    static std::map<std::uint64_t, void*> handlersWithArgsMaps;
    static std::map<std::uint64_t, std::function<void()>> argumentMapClearers;
    // The maps are filled before any worker runs; the lock only keeps a
    // worker's first lookup from racing a late registration.
    static std::recursive_mutex mapsMutex;
};

template <typename... Args>
std::map<HandlersFuncKeys, std::function<GlobalHandlerEvents::HandlerEventsStatus(Args...)>>&
GlobalHandlerEvents::getHandlerMapWithArgs() {
    using MapType = std::map<HandlersFuncKeys, std::function<HandlerEventsStatus(Args...)>>;
    static const std::uint64_t typeHash = typeid(MapType).hash_code();
    std::lock_guard<std::recursive_mutex> lock(mapsMutex);
    auto found = handlersWithArgsMaps.find(typeHash);
    if (found == handlersWithArgsMaps.end()) {
        // The maps live as long as the process; the owner list frees them at exit.
        auto map = std::make_shared<MapType>();
        found = handlersWithArgsMaps.emplace(typeHash, map.get()).first;
        argumentMapClearers[typeHash] = [map] { map->clear(); };
    }
    return *static_cast<MapType*>(found->second);
}

template <typename... Args>
void GlobalHandlerEvents::addHandlerWithArgs(
    HandlersFuncKeys key, std::type_identity_t<std::function<HandlerEventsStatus(Args...)>> handler) {
    std::lock_guard<std::recursive_mutex> lock(mapsMutex);
    auto& map = getHandlerMapWithArgs<Args...>();
    auto found = map.find(key);
    if (found != map.end() && found->second) {
        logKey(BaseLogger::WARNING, "Handler with args ", key, " already exist!");
        return;
    }
    logKey(BaseLogger::DEBUG, "Add handler with args ", key);
    map.insert({key, std::move(handler)});
}

template <typename... Args>
GlobalHandlerEvents::HandlerEventsStatus
GlobalHandlerEvents::_executeHandlerWithArgs(HandlersFuncKeys key, std::type_identity_t<Args>... args) {
    logKey(BaseLogger::DEBUG, "Execute handler with args ", key);
    std::function<HandlerEventsStatus(Args...)> handler;
    bool found = false;
    {
        std::lock_guard<std::recursive_mutex> lock(mapsMutex);
        auto& map = getHandlerMapWithArgs<Args...>();
        auto entry = map.find(key);
        if (entry != map.end()) {
            handler = entry->second;
            found = true;
        }
    }
    if (!found) {
        logKey(BaseLogger::ERROR, "Handler with args ", key, " didn't find");
        return Failure;
    }
    return handler(args...) != Success ? Failure : Success;
}
