#pragma once

#include "MainWindow.h"
#include "MainWindowTestAccess.h"

#include <gtkmm.h>

#include <chrono>
#include <functional>
#include <string>

namespace guitest {

// The application the windows of a test process belong to, made once, with
// the interface bundle registered as the program registers it.
Glib::RefPtr<Gtk::Application>& application();

// Runs the toolkit's pending events until `done` holds or `timeout` has
// passed; the last answer of `done`.
bool pumpUntil(const std::function<bool()>& done,
               std::chrono::milliseconds timeout = std::chrono::milliseconds(5000));
// Runs the pending events for `duration`.
void pumpFor(std::chrono::milliseconds duration);

// The window as the program builds it. Handlers of an earlier window are
// dropped first: they point at a window that is gone.
class WindowUnderTest {
public:
    WindowUnderTest();
    ~WindowUnderTest();
    WindowUnderTest(const WindowUnderTest&) = delete;
    WindowUnderTest& operator=(const WindowUnderTest&) = delete;

    MainWindow& window() { return *mainWindow; }

    // A widget of the interface by its builder id; fails the test when the
    // id is missing or of another class.
    template <typename T> T* get(const char* id) {
        auto object = MainWindowTestAccess::builder(*mainWindow)->get_object(id);
        T* widget = dynamic_cast<T*>(object.get());
        if (widget == nullptr) {
            reportMissing(id);
        }
        return widget;
    }

    std::string labelText(const char* id);
    std::string buttonText(const char* id);
    std::string menuItemText(const char* id);

private:
    void reportMissing(const char* id);

    MainWindow* mainWindow = nullptr;
};

} // namespace guitest
