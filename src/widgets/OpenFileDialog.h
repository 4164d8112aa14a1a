#pragma once

#include "LoggerManager.h"

#include <gtkmm.h>

#include <map>
#include <string>
#include <vector>

namespace MeridKestalWidgets {

// The file chooser through which the user picks an image. It starts on the
// user's desktop and offers the filters it is given.
class OpenFileDialog : public Gtk::FileChooserDialog {
public:
    enum OpenFileDialogText { CANCEL_BUTTON = 0, OPEN_BUTTON = 1 };

    OpenFileDialog(_GtkFileChooserDialog* cobject, const Glib::RefPtr<Gtk::Builder>& builder);

    // Stores the window and, when there is one, stays above it.
    void setOwner(Gtk::Window* window);
    // Pairs of filter name and pattern: "Binar", "*.bin" makes the filter
    // "Binar Files (*.bin)". An odd last entry is ignored.
    void init(std::vector<std::string>& filters);
    void redefinitionLabeles();
    void definitionDefaultValues();

private:
    void log(const std::string& message, BaseLogger::MessageType type);
    void openOnDesktop();

    std::map<OpenFileDialogText, std::string> labelsRu;
    std::map<OpenFileDialogText, std::string> labelsEn;
    const std::map<OpenFileDialogText, std::string>* currentLabels = nullptr;
    Glib::RefPtr<Gtk::Builder> builder;
    // The filter last made.
    Glib::RefPtr<Gtk::FileFilter> fileFilter;
    // Added by definitionDefaultValues; the dialog owns them.
    Gtk::Button* openButton = nullptr;
    Gtk::Button* cancelButton = nullptr;
    Gtk::Window* owner = nullptr;
    LoggerManager* logger;
};

} // namespace MeridKestalWidgets
