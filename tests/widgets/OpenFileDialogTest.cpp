// The file chooser: its two buttons, its filters and its start folder.
#include "OpenFileDialog.h"
#include "TestSupport.h"
#include "WidgetTestSupport.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <memory>
#include <string>
#include <vector>

using MeridKestalWidgets::OpenFileDialog;
using widgettest::KeyRecorder;
using widgettest::loadInterface;

namespace {

class OpenFileDialogTest : public ::testing::Test {
protected:
    void SetUp() override {
        builder = loadInterface();
        guard = std::make_unique<widgettest::ToplevelsGuard>(builder);
        OpenFileDialog* made = nullptr;
        builder->get_widget_derived("OpenFileDialog", made);
        dialog.reset(made);
        ASSERT_NE(dialog, nullptr);
    }

    void TearDown() override {
        dialog.reset();
        guard.reset();
    }

    std::string buttonText(int response) {
        auto* button = dynamic_cast<Gtk::Button*>(dialog->get_widget_for_response(response));
        return button != nullptr ? std::string(button->get_label()) : std::string("<missing>");
    }

    std::vector<std::string> filterNames() {
        std::vector<std::string> names;
        for (const auto& filter : dialog->list_filters()) {
            names.push_back(filter->get_name());
        }
        return names;
    }

    KeyRecorder keys;
    Glib::RefPtr<Gtk::Builder> builder;
    std::unique_ptr<widgettest::ToplevelsGuard> guard;
    std::unique_ptr<OpenFileDialog> dialog;
};

} // namespace

TEST_F(OpenFileDialogTest, OpenComesFirstWithTheAnswerTheWindowLooksFor) {
    EXPECT_EQ(buttonText(Gtk::RESPONSE_OK), "Открыть");
    EXPECT_EQ(buttonText(Gtk::RESPONSE_CANCEL), "Отмена");
    EXPECT_EQ(Gtk::RESPONSE_OK, -5);
    std::vector<Gtk::Widget*> buttons = dialog->get_action_area()->get_children();
    ASSERT_EQ(buttons.size(), 2u);
    EXPECT_EQ(buttons[0], dialog->get_widget_for_response(Gtk::RESPONSE_OK));
}

TEST_F(OpenFileDialogTest, FiltersAreNamedFromTheirPairsAndKeepTheirNames) {
    std::vector<std::string> filters{"Binar", "*.bin", "Hex", "*.hex", "All", "*.*"};
    dialog->init(filters);
    const std::vector<std::string> expected = {"Binar Files (*.bin)", "Hex Files (*.hex)", "All Files (*.*)"};
    EXPECT_EQ(filterNames(), expected);
    dialog->redefinitionLabeles();
    EXPECT_EQ(buttonText(Gtk::RESPONSE_OK), "Open");
    EXPECT_EQ(buttonText(Gtk::RESPONSE_CANCEL), "Cancel");
    EXPECT_EQ(filterNames(), expected);
    std::vector<std::string> none;
    dialog->init(none);
    EXPECT_EQ(filterNames().size(), 3u);
}

TEST_F(OpenFileDialogTest, StartsOnTheDesktop) {
    // The test's home has a Desktop folder and no folder settings.
    const std::string desktop = Glib::build_filename(Glib::get_home_dir(), "Desktop");
    ASSERT_TRUE(std::filesystem::is_directory(desktop)) << desktop;
    // The chooser takes the folder on its way to showing it.
    EXPECT_TRUE(widgettest::pumpUntil([&] { return dialog->get_current_folder() == desktop; }))
        << dialog->get_current_folder();
}

TEST_F(OpenFileDialogTest, OwnerMakesItTransient) {
    Gtk::Window owner;
    dialog->setOwner(&owner);
    EXPECT_EQ(dialog->get_transient_for(), &owner);
    dialog->setOwner(nullptr);
    EXPECT_EQ(dialog->get_transient_for(), &owner);
}
