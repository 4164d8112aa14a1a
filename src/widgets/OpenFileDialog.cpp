#include "OpenFileDialog.h"

#include "WidgetChildren.h"

#include <glib.h>

#include <exception>

namespace MeridKestalWidgets {

namespace {

const char* const kTag = "OpenFileDialog: ";

// The user's desktop as the system names it; empty when it names none.
std::string systemDesktopFolder() {
    const gchar* desktop = g_get_user_special_dir(G_USER_DIRECTORY_DESKTOP);
    if (desktop == nullptr) {
        return {};
    }
    std::string folder = desktop;
    // A one-character answer is no folder to start in.
    return folder.size() < 2 ? std::string() : folder;
}

// "Desktop" in the home directory; empty without a home directory.
std::string homeDesktopFolder() {
    const std::string home = Glib::get_home_dir();
    if (home.empty()) {
        return {};
    }
    gchar* joined = g_build_filename(home.c_str(), "Desktop", nullptr);
    std::string folder = joined;
    g_free(joined);
    return folder;
}

} // namespace

OpenFileDialog::OpenFileDialog(_GtkFileChooserDialog* cobject, const Glib::RefPtr<Gtk::Builder>& builder)
    : Glib::ObjectBase("OpenFileDialog"), Gtk::FileChooserDialog(cobject), builder(builder),
      logger(&LoggerManager::getInstance()) {
    labelsRu = {{CANCEL_BUTTON, "Отмена"}, {OPEN_BUTTON, "Открыть"}};
    labelsEn = {{CANCEL_BUTTON, "Cancel"}, {OPEN_BUTTON, "Open"}};
    currentLabels = nullptr;
    definitionDefaultValues();
}

void OpenFileDialog::log(const std::string& message, BaseLogger::MessageType type) {
    logger->log(message, type, kTag);
}

void OpenFileDialog::setOwner(Gtk::Window* window) {
    owner = window;
    if (owner != nullptr) {
        set_transient_for(*owner);
    }
}

void OpenFileDialog::init(std::vector<std::string>& filters) {
    for (std::size_t index = 0; index + 1 < filters.size(); index += 2) {
        const std::string& name = filters[index];
        const std::string& pattern = filters[index + 1];
        fileFilter = Gtk::FileFilter::create();
        fileFilter->set_name(name + " Files (" + pattern + ")");
        fileFilter->add_pattern(pattern);
        add_filter(fileFilter);
    }
}

void OpenFileDialog::redefinitionLabeles() {
    log("Redefinition labeles", BaseLogger::DEBUG);
    currentLabels = nextLanguage(currentLabels, labelsRu, labelsEn);
    if (openButton != nullptr) {
        openButton->set_label(currentLabels->at(OPEN_BUTTON));
    }
    if (cancelButton != nullptr) {
        cancelButton->set_label(currentLabels->at(CANCEL_BUTTON));
    }
}

void OpenFileDialog::definitionDefaultValues() {
    // Sets the language only: the buttons are not there yet.
    redefinitionLabeles();
    openButton = add_button(currentLabels->at(OPEN_BUTTON), Gtk::RESPONSE_OK);
    cancelButton = add_button(currentLabels->at(CANCEL_BUTTON), Gtk::RESPONSE_CANCEL);
    openOnDesktop();
}

void OpenFileDialog::openOnDesktop() {
    // Without a folder the dialog opens wherever the toolkit likes.
    try {
        std::string folder = systemDesktopFolder();
        if (folder.empty()) {
            folder = homeDesktopFolder();
        }
        if (!folder.empty()) {
            set_current_folder(folder);
        }
    } catch (const std::exception&) {
    } catch (const Glib::Exception&) {
    }
}

} // namespace MeridKestalWidgets
