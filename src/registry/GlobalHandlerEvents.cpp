#include "GlobalHandlerEvents.h"

std::map<HandlersFuncKeys, std::string> GlobalHandlerEvents::keysNamesDict;
std::map<HandlersFuncKeys, std::function<GlobalHandlerEvents::HandlerEventsStatus()>>
    GlobalHandlerEvents::handlers;
std::map<std::uint64_t, void*> GlobalHandlerEvents::handlersWithArgsMaps;
std::map<std::uint64_t, std::function<void()>> GlobalHandlerEvents::argumentMapClearers;
std::recursive_mutex GlobalHandlerEvents::mapsMutex;

namespace {
const char* const kTag = "GlobalHandlerEvents: ";
}

GlobalHandlerEvents& GlobalHandlerEvents::getInstance() {
    static GlobalHandlerEvents globalHandler;
    return globalHandler;
}

GlobalHandlerEvents::GlobalHandlerEvents() {
    logLine("Constructor GlobalHandlerEvents", BaseLogger::DEBUG);
    std::lock_guard<std::recursive_mutex> lock(mapsMutex);
    keysNamesDict = {
        {SWITCH_LANG, "SWITCH_LANG"},
        {QUIT_APP, "QUIT_APP"},
        {CONNECT_DIALOG_OPEN, "CONNECT_DIALOG_OPEN"},
        {DISCONNECT, "DISCONNECT"},
        {SELECT_STM32, "SELECT_STM32"},
        {SELECT_ESP32, "SELECT_ESP32"},
        {SEARCH_FILE_STM32, "SEARCH_FILE_STM32"},
        {SEARCH_FILE_ESP32, "SEARCH_FILE_ESP32"},
        {UPLOAD_FIRMWARE, "UPLOAD_FIRMWARE"},
        {SEARCH_DEVICES, "SEARCH_DEVICES"},
        {SHOW_DEVICE_LIST, "SHOW_DEVICE_LIST"},
        {GET_INFO_FIELDS_RESPOND, "GET_INFO_FIELDS_RESPOND"},
        {SET_CURRENT_DEVICE_ADDR, "SET_CURRENT_DEVICE_ADDR"},
        {UPDATE_LOADING_STATUS, "UPDATE_LOADING_STATUS"},
        {SET_LISTENER_TIMEOUT, "SET_LISTENER_TIMEOUT"},
    };
}

void GlobalHandlerEvents::logLine(const std::string& message, BaseLogger::MessageType type) {
    LoggerManager::getInstance().log(message, type, kTag);
}

void GlobalHandlerEvents::logKey(BaseLogger::MessageType type, const char* before, HandlersFuncKeys key,
                                 const char* after) {
    if (LoggerManager::getInstance().wants(type)) {
        logLine(before + keyName(key) + after, type);
    }
}

std::string GlobalHandlerEvents::keyName(HandlersFuncKeys key) {
    // Subscript on purpose: a nameless key logs an empty name and leaves one behind.
    std::lock_guard<std::recursive_mutex> lock(mapsMutex);
    return keysNamesDict[key];
}

void GlobalHandlerEvents::addHandler(HandlersFuncKeys key, std::function<HandlerEventsStatus()> handler) {
    std::lock_guard<std::recursive_mutex> lock(mapsMutex);
    auto found = handlers.find(key);
    if (found != handlers.end() && found->second) {
        logKey(BaseLogger::WARNING, "Handler ", key, " already exist!");
        return;
    }
    logKey(BaseLogger::DEBUG, "Add handler ", key);
    handlers.insert({key, std::move(handler)});
}

GlobalHandlerEvents::HandlerEventsStatus GlobalHandlerEvents::_executeHandler(HandlersFuncKeys key) {
    logKey(BaseLogger::DEBUG, "Execute handler ", key);
    std::function<HandlerEventsStatus()> handler;
    bool found = false;
    {
        std::lock_guard<std::recursive_mutex> lock(mapsMutex);
        auto entry = handlers.find(key);
        if (entry != handlers.end()) {
            handler = entry->second;
            found = true;
        }
    }
    if (!found) {
        logKey(BaseLogger::ERROR, "Hanler ", key, " did't find");
        return Failure;
    }
    // An empty function throws std::bad_function_call, as a registered-but-empty entry should.
    return handler() != Success ? Failure : Success;
}

void GlobalHandlerEvents::clearAllHandlers() {
    std::lock_guard<std::recursive_mutex> lock(mapsMutex);
    handlers.clear();
    // The maps with arguments are kept; only their entries go.
    clearArgumentHandlers();
}

void GlobalHandlerEvents::clearArgumentHandlers() {
    for (auto& entry : argumentMapClearers) {
        entry.second();
    }
}
