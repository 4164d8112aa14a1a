#include "GlibLogRouting.h"
#include "EarlyLog.h"
#include "ShellTestSupport.h"
#include "TestSupport.h"

#include <gtest/gtest.h>

namespace {

class GlibRouting : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(openEarlyLog(path)); }
    std::vector<std::string> bodies() const { return shelltest::logBodies(path); }

    testsupport::TempDir dir;
    const std::string path = dir.path() + "/early.log";
};

} // namespace

TEST_F(GlibRouting, LogAndPrintOutputReachTheEarlyLog) {
    takeOverGlibOutput();
    g_log("SomeLibrary", G_LOG_LEVEL_WARNING, "a warning with %d", 42);
    g_log(nullptr, G_LOG_LEVEL_MESSAGE, "no domain");
    g_print("printed %s", "text");
    g_printerr("printed to standard error");
    glibPrintErrHandler(nullptr);
    glibPrintHandler(nullptr);

    EXPECT_EQ(bodies(), std::vector<std::string>({
                            "[WARNING] [SomeLibrary] a warning with 42",
                            "[MESSAGE] no domain",
                            "[MESSAGE] [stdout] printed text",
                            "[WARNING] [stderr] printed to standard error",
                            "[WARNING] [stderr] ",
                            "[MESSAGE] [stdout] ",
                        }));
}

TEST_F(GlibRouting, FatalMasksAreClearedSoACriticalOnlyLeavesALine) {
    g_log_set_always_fatal(static_cast<GLogLevelFlags>(G_LOG_LEVEL_CRITICAL | G_LOG_LEVEL_WARNING));
    g_log_set_fatal_mask("Gtk", G_LOG_LEVEL_CRITICAL);
    g_log_set_fatal_mask("Pango", G_LOG_LEVEL_WARNING);
    disableGlibFatalMasks();
    takeOverGlibOutput();
    g_log("Gtk", G_LOG_LEVEL_CRITICAL, "survivable");
    g_log("Pango", G_LOG_LEVEL_WARNING, "survivable too");
    g_log("Other", G_LOG_LEVEL_WARNING, "and this");
    EXPECT_EQ(bodies(),
              std::vector<std::string>({"[CRITICAL] [Gtk] survivable", "[WARNING] [Pango] survivable too",
                                        "[WARNING] [Other] and this"}));
}

TEST_F(GlibRouting, DiagnosticsNameMissingResourcesAndUnsetVariables) {
    shelltest::registerBundles();
    testsupport::ScopedEnv set("MERID_ROUTING_TEST_SET", std::string("/a:/b"));
    testsupport::ScopedEnv unset("MERID_ROUTING_TEST_UNSET", std::nullopt);
    logResourcePresence("/meridkestalutility/ui/UserInterface.glade");
    logResourcePresence("/elsewhere/ui/UserInterface.glade");
    logEnvIfSet("MERID_ROUTING_TEST_SET");
    logEnvIfSet("MERID_ROUTING_TEST_UNSET");

    const auto lines = bodies();
    ASSERT_EQ(lines.size(), 4u);
    EXPECT_EQ(lines[0], "[MESSAGE] [GResource] OK: /meridkestalutility/ui/UserInterface.glade");
    // GLib's own reason in the brackets.
    EXPECT_TRUE(lines[1].rfind("[WARNING] [GResource] Missing: /elsewhere/ui/UserInterface.glade (", 0) ==
                    0 &&
                lines[1].back() == ')' && lines[1].find("unknown error") == std::string::npos)
        << lines[1];
    EXPECT_EQ(lines[2], "[MESSAGE] [Env] MERID_ROUTING_TEST_SET=/a:/b");
    EXPECT_EQ(lines[3], "[MESSAGE] [Env] MERID_ROUTING_TEST_UNSET is not set");
}
