#pragma once

#include "MainWindow.h"
#include "MainWindowTestAccess.h"
#include "ToolkitLoop.h"

#include <gtest/gtest.h>
#include <gtkmm.h>

#include <string>

namespace guitest {

// The application the windows of a test process belong to, made once, with
// the bundles registered as the program registers them.
Glib::RefPtr<Gtk::Application>& application();

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
        auto* widget = dynamic_cast<T*>(MainWindowTestAccess::builder(*mainWindow)->get_object(id).get());
        if (widget == nullptr) {
            ADD_FAILURE() << "no widget \"" << id << "\" of the expected class";
        }
        return widget;
    }

    // The label of a label, button or menu item.
    std::string text(const char* id);

    // Presses `button` and answers the file dialog it opens: with `path`,
    // once the chooser has taken it, or with a cancel when `path` is empty.
    void answerFileDialog(const char* button, const std::string& path);

private:
    MainWindow* mainWindow = nullptr;
};

} // namespace guitest
