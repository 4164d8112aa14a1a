#pragma once

#include "GlobalHandlerEvents.h"
#include "ToolkitLoop.h"

#include <gtest/gtest.h>
#include <gtkmm.h>

#include <memory>
#include <string>

namespace widgettest {

// The interface definition as the program carries it, with the toolkit up
// and the bundles registered.
Glib::RefPtr<Gtk::Builder> loadInterface();

// Destroys the builder's top-level windows, so that the next test starts
// without them.
void destroyToplevels(const Glib::RefPtr<Gtk::Builder>& builder);

// One widget of class `W`, built on the builder object `id` of a fresh
// interface, with its children reachable by id. No key has a handler but
// those a test gives.
template <typename W> class DerivedWidgetTest : public ::testing::Test {
protected:
    explicit DerivedWidgetTest(const char* id) : builder(loadInterface()) {
        GlobalHandlerEvents::getInstance().clearAllHandlers();
        W* made = nullptr;
        builder->get_widget_derived(id, made);
        widget.reset(made);
    }

    ~DerivedWidgetTest() override {
        widget.reset();
        destroyToplevels(builder);
        GlobalHandlerEvents::getInstance().clearAllHandlers();
    }

    template <typename T> T& child(const char* id) {
        return *dynamic_cast<T*>(builder->get_object(id).get());
    }

    Glib::RefPtr<Gtk::Builder> builder;
    std::unique_ptr<W> widget;
};

} // namespace widgettest
