#pragma once

#include <gtkmm.h>

// Finds the window's interface definition: the file in MERID_UI_GLADE when
// it names something, else the embedded one, else a file beside the program
// or in the source tree.
class InterfaceLoader {
public:
    // Load errors other than a missing resource are the caller's: they end
    // the start.
    static Glib::RefPtr<Gtk::Builder> load();
};
