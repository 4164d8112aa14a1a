#pragma once

#include "GlobalHandlerEvents.h"

#include <gtest/gtest.h>
#include <gtkmm.h>

#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <string>

namespace widgettest {

// The interface definition as the program carries it, with the toolkit up
// and the bundles registered.
Glib::RefPtr<Gtk::Builder> loadInterface();

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

// Destroys the builder's top-level windows, so that the next test starts
// without them.
void destroyToplevels(const Glib::RefPtr<Gtk::Builder>& builder);

// One widget of class `W`, built on the builder object `id` of a fresh
// interface, with its children reachable by id.
template <typename W> class DerivedWidgetTest : public ::testing::Test {
protected:
    explicit DerivedWidgetTest(const char* id) : builder(loadInterface()) {
        W* made = nullptr;
        builder->get_widget_derived(id, made);
        widget.reset(made);
    }

    ~DerivedWidgetTest() override {
        widget.reset();
        destroyToplevels(builder);
    }

    template <typename T> T& child(const char* id) {
        return *dynamic_cast<T*>(builder->get_object(id).get());
    }

    KeyRecorder keys;
    Glib::RefPtr<Gtk::Builder> builder;
    std::unique_ptr<W> widget;
};

} // namespace widgettest
