#pragma once

#include "GlobalHandlerEvents.h"

#include <gtkmm.h>

#include <chrono>
#include <functional>
#include <map>
#include <string>

namespace widgettest {

// The interface definition as the program carries it, with the toolkit up
// and the bundles registered. `edit` may change the text before it is
// built, to take an object out of it.
Glib::RefPtr<Gtk::Builder> loadInterface(const std::function<void(std::string&)>& edit = {});

// The toolkit's pending events until `done` holds or `timeout` has passed.
bool pumpUntil(const std::function<bool()>& done,
               std::chrono::milliseconds timeout = std::chrono::milliseconds(5000));

// Handlers that count how often each key was raised and answer as told.
// Clears the registry when made and again when gone.
class KeyRecorder {
public:
    KeyRecorder();
    ~KeyRecorder();
    KeyRecorder(const KeyRecorder&) = delete;
    KeyRecorder& operator=(const KeyRecorder&) = delete;

    void answer(HandlersFuncKeys key, GlobalHandlerEvents::HandlerEventsStatus status);
    int count(HandlersFuncKeys key) const;

private:
    std::map<HandlersFuncKeys, int> counts;
};

// Destroys the builder's top-level windows at the end of a test, so that
// the next test starts without them.
class ToplevelsGuard {
public:
    explicit ToplevelsGuard(Glib::RefPtr<Gtk::Builder> builder) : builder(std::move(builder)) {}
    ~ToplevelsGuard();

private:
    Glib::RefPtr<Gtk::Builder> builder;
};

} // namespace widgettest
