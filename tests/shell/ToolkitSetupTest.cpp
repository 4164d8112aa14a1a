#include "ToolkitSetup.h"
#include "EarlyLog.h"
#include "MeridResources.h"
#include "PortableRuntimeData.h"
#include "ShellTestSupport.h"
#include "TestSupport.h"

#include <gtest/gtest.h>
#include <gtkmm.h>

using shelltest::fileLines;
using shelltest::withoutTimestamp;

namespace {

class ToolkitSetup : public ::testing::Test {
protected:
    void SetUp() override {
        // The toolkit and its C++ wrappers, as the program has them by now.
        static auto application = [] {
            int argc = 1;
            static char name[] = "shell_toolkit_tests";
            static char* args[] = {name, nullptr};
            char** argv = args;
            return Gtk::Application::create(argc, argv, "", Gio::APPLICATION_FLAGS_NONE);
        }();
        (void)application;
        shelltest::registerBundles();
        ASSERT_TRUE(openEarlyLog(dir.path() + "/early.log"));
    }

    std::vector<std::string> logBodies() {
        std::vector<std::string> result;
        const auto lines = fileLines(dir.path() + "/early.log");
        for (std::size_t index = 2; index < lines.size(); ++index) {
            result.push_back(withoutTimestamp(lines[index]));
        }
        return result;
    }

    testsupport::TempDir dir;
};

} // namespace

TEST_F(ToolkitSetup, EmbeddedIconsAreFoundThroughTheHicolorTheme) {
    // As at start: the runtime tree first, then the theme.
    testsupport::TempDir temp;
    testsupport::ScopedTempDirEnv tempEnv(temp.path());
    ensurePortableRuntimeData();
    prepareIconTheme();
    const std::vector<std::string> expected = {
        "[MESSAGE] [Gtk] Gtk::IconTheme has icon user-home-symbolic-ltr",
        "[MESSAGE] [Gtk] Gtk::IconTheme has icon image-missing",
        "[MESSAGE] [Gtk] Gtk::IconTheme has icon edit-find-symbolic",
    };
    EXPECT_EQ(logBodies(), expected);
    EXPECT_EQ(Gtk::Settings::get_default()->property_gtk_icon_theme_name().get_value(), "hicolor");
    EXPECT_TRUE(Gtk::IconTheme::get_default()->has_icon("gtk-refresh"));
}

TEST_F(ToolkitSetup, DefaultIconComesFromTheBundle) {
    setDefaultWindowIcon();
    EXPECT_STREQ(gtk_window_get_default_icon_name(), "meridkestalutility");
    const auto icons = Gtk::Window::get_default_icon_list();
    ASSERT_EQ(icons.size(), 1u);
    EXPECT_EQ(icons.front()->get_width(), 256);
}

TEST_F(ToolkitSetup, MissingIconImageLeavesTheIconNameAndTheStartGoesOn) {
    const int times = shelltest::unregisterCompletely(
        merid_icons_get_resource(), "/meridkestalutility/icons/hicolor/256x256/apps/meridkestalutility.png");
    EXPECT_NO_THROW(setDefaultWindowIcon());
    shelltest::registerAgain(merid_icons_get_resource(), times);
    EXPECT_STREQ(gtk_window_get_default_icon_name(), "meridkestalutility");
    EXPECT_TRUE(Gtk::Window::get_default_icon_list().empty());
    EXPECT_TRUE(logBodies().empty());
}
