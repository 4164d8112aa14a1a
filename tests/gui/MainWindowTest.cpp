// The window as the builder makes it from the interface definition, in
// this process, on the test display.
#include "MainWindow.h"
#include "GlobalHandlerEvents.h"
#include "MeridResources.h"
#include "TestSupport.h"

#include <gtest/gtest.h>
#include <gtkmm.h>

#include <fstream>
#include <mutex>
#include <string>
#include <vector>

using testsupport::ScopedEnv;
using testsupport::TempDir;

namespace {

constexpr const char* kResource = "/meridkestalutility/ui/UserInterface.glade";
const std::string kSourceGlade = std::string(MERID_SOURCE_ROOT) + "/UI/UserInterface.glade";

// Messages logged without a domain, which is where the window's loading
// lines go.
std::vector<std::string> gMessages;

void collectMessage(const gchar* domain, GLogLevelFlags level, const gchar* message, gpointer) {
    if (domain == nullptr && (level & G_LOG_LEVEL_MESSAGE) != 0) {
        gMessages.emplace_back(message);
    } else {
        g_log_default_handler(domain, level, message, nullptr);
    }
}

Glib::RefPtr<Gtk::Application>& application() {
    static Glib::RefPtr<Gtk::Application> app = [] {
        int argc = 1;
        static char name[] = "main_window_tests";
        static char* args[] = {name, nullptr};
        char** argv = args;
        g_resources_register(merid_ui_get_resource());
        g_log_set_default_handler(&collectMessage, nullptr);
        return Gtk::Application::create(argc, argv, "", Gio::APPLICATION_FLAGS_NONE);
    }();
    return app;
}

bool resourceReachable() {
    GBytes* bytes = g_resources_lookup_data(kResource, G_RESOURCE_LOOKUP_FLAGS_NONE, nullptr);
    if (bytes != nullptr) {
        g_bytes_unref(bytes);
    }
    return bytes != nullptr;
}

class MainWindowLoading : public ::testing::Test {
protected:
    void SetUp() override {
        application();
        gMessages.clear();
    }

    void TearDown() override {
        delete window;
        GlobalHandlerEvents::getInstance().clearAllHandlers();
    }

    // The handlers of an earlier window point at a window that is gone.
    MainWindow* load() {
        GlobalHandlerEvents::getInstance().clearAllHandlers();
        window = MainWindow::getInstance("MeridKestalUtility", application());
        return window;
    }

    ScopedEnv glade{"MERID_UI_GLADE", std::nullopt};
    MainWindow* window = nullptr;
};

} // namespace

TEST_F(MainWindowLoading, FromTheResourceWithTitleAndSize) {
    ASSERT_NE(load(), nullptr);
    EXPECT_EQ(window->get_title(), "MeridKestalUtility");
    int width = 0;
    int height = 0;
    window->get_default_size(width, height);
    EXPECT_EQ(width, 500);
    EXPECT_EQ(height, 550);
    const std::vector<std::string> expected = {
        "MainWindow: loading UI from GResource /meridkestalutility/ui/UserInterface.glade",
        "MainWindow: resolving derived widget MainWindow...",
        "MainWindow: widget resolved, initializing...",
        "MainWindow: initWidgets done.",
    };
    EXPECT_EQ(gMessages, expected);
}

TEST_F(MainWindowLoading, TheWindowShowsAtItsSize) {
    ASSERT_NE(load(), nullptr);
    window->show();
    const auto deadline = g_get_monotonic_time() + 10 * G_USEC_PER_SEC;
    while ((!window->get_mapped() || window->get_allocated_width() < 500) &&
           g_get_monotonic_time() < deadline) {
        Gtk::Main::iteration(false);
    }
    EXPECT_TRUE(window->get_mapped());
    EXPECT_EQ(window->get_allocated_width(), 500);
    EXPECT_EQ(window->get_allocated_height(), 550);
}

TEST_F(MainWindowLoading, OverrideFileIsLoadedWhenItExists) {
    ScopedEnv override("MERID_UI_GLADE", kSourceGlade);
    ASSERT_NE(load(), nullptr);
    ASSERT_FALSE(gMessages.empty());
    EXPECT_EQ(gMessages.front(), "MainWindow: loading UI from file override: " + kSourceGlade);
}

TEST_F(MainWindowLoading, OverrideNamingNothingOrEmptyIsIgnored) {
    for (const std::string& value : {std::string("/no/such/file.glade"), std::string()}) {
        ScopedEnv override("MERID_UI_GLADE", value);
        gMessages.clear();
        ASSERT_NE(load(), nullptr);
        delete window;
        window = nullptr;
        ASSERT_FALSE(gMessages.empty());
        EXPECT_EQ(gMessages.front(),
                  "MainWindow: loading UI from GResource /meridkestalutility/ui/UserInterface.glade");
    }
}

TEST_F(MainWindowLoading, MalformedOverrideThrowsWithoutFallback) {
    TempDir dir;
    const std::string broken = dir.path() + "/broken.glade";
    std::ofstream(broken) << "<interface><object class=\"GtkWindow\" id=\"MainWindow\"></interface>";
    ScopedEnv override("MERID_UI_GLADE", broken);
    EXPECT_THROW(load(), Glib::Error);
    for (const auto& message : gMessages) {
        EXPECT_EQ(message.find("fallback"), std::string::npos) << message;
    }
}

TEST_F(MainWindowLoading, WithoutTheResourceTheSourceTreeFileIsTheFallback) {
    GResource* ui = merid_ui_get_resource();
    int unregistered = 0;
    while (resourceReachable() && unregistered < 16) {
        g_resources_unregister(ui);
        ++unregistered;
    }
    ASSERT_FALSE(resourceReachable());
    load();
    for (int count = 0; count < unregistered; ++count) {
        g_resources_register(ui);
    }
    ASSERT_NE(window, nullptr);
    ASSERT_GE(gMessages.size(), 2u);
    EXPECT_EQ(gMessages[0],
              "MainWindow: loading UI from GResource /meridkestalutility/ui/UserInterface.glade");
    // The file beside the working directory wins over the source tree's.
    const std::string fallback = "MainWindow: loading UI from file fallback: ";
    EXPECT_TRUE(gMessages[1] == fallback + kSourceGlade ||
                gMessages[1] == fallback + "UI/UserInterface.glade")
        << gMessages[1];
    EXPECT_EQ(window->get_title(), "MeridKestalUtility");
}

TEST_F(MainWindowLoading, DefinitionWithoutTheWindowObjectEndsTheLoadWithAnError) {
    TempDir dir;
    const std::string noWindow = dir.path() + "/no-window.glade";
    std::ofstream(noWindow) << "<interface><object class=\"GtkBox\" id=\"SomethingElse\"/></interface>";
    ScopedEnv override("MERID_UI_GLADE", noWindow);
    EXPECT_THROW(load(), std::runtime_error);
}
