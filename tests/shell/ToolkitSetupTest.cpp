#include "ToolkitSetup.h"
#include "EarlyLog.h"
#include "ShellTestSupport.h"
#include "TestSupport.h"

#include <gtest/gtest.h>
#include <gtkmm.h>

// A missing window image does not stop the start and keeps the icon's name;
// with the bundle in place the image is the embedded 256x256 one.
TEST(ToolkitSetup, DefaultWindowIconComesFromTheBundleWhenItIsThere) {
    auto application = Gtk::Application::create("", Gio::APPLICATION_FLAGS_NONE);
    shelltest::registerBundles();
    testsupport::TempDir dir;
    ASSERT_TRUE(openEarlyLog(dir.path() + "/early.log"));

    shelltest::withoutIconBundle([] { EXPECT_NO_THROW(setDefaultWindowIcon()); });
    EXPECT_STREQ(gtk_window_get_default_icon_name(), "meridkestalutility");
    EXPECT_TRUE(Gtk::Window::get_default_icon_list().empty());
    EXPECT_TRUE(shelltest::logBodies(dir.path() + "/early.log").empty());

    setDefaultWindowIcon();
    const auto icons = Gtk::Window::get_default_icon_list();
    ASSERT_EQ(icons.size(), 1u);
    EXPECT_EQ(icons.front()->get_width(), 256);
}
