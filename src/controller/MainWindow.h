#pragma once

#include "LoggerManager.h"

#include <gtkmm.h>

// The top-level window and the controller of the program. The builder makes
// it on the interface definition's "MainWindow" object; it owns what the
// window holds and runs the flows.
class MainWindow : public Gtk::Window {
public:
    // Loads the interface definition (the file in MERID_UI_GLADE when it
    // names something, else the embedded one, else a file found beside the
    // program or in the source tree), builds the window on it and gives it
    // its title and size. Each call builds a new window.
    static MainWindow* getInstance(const Glib::ustring& title, Glib::RefPtr<Gtk::Application>& application);

    ~MainWindow() override;

    MainWindow(const MainWindow&) = delete;
    MainWindow& operator=(const MainWindow&) = delete;

private:
    // Only the builder constructs the window, through get_widget_derived.
    friend class Gtk::Builder;
    MainWindow(BaseObjectType* cobject, const Glib::RefPtr<Gtk::Builder>& builder);

    void initWidgets(Glib::RefPtr<Gtk::Builder>& builder, Glib::RefPtr<Gtk::Application>& application);

    Glib::RefPtr<Gtk::Application> application;
    Glib::RefPtr<Gtk::Builder> builder;
    LoggerManager* logger = nullptr;
};
