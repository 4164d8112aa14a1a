#include "GlibLogRouting.h"
#include "EarlyLog.h"
#include "ShellTestSupport.h"
#include "TestSupport.h"

#include <gtest/gtest.h>

TEST(GlibRouting, OutputReachesTheEarlyLogAndNoLevelIsFatal) {
    testsupport::TempDir dir;
    ASSERT_TRUE(openEarlyLog(dir.path() + "/early.log"));
    // Masks the toolkit may have armed; left armed, the first of these aborts.
    g_log_set_always_fatal(static_cast<GLogLevelFlags>(G_LOG_LEVEL_CRITICAL | G_LOG_LEVEL_WARNING));
    g_log_set_fatal_mask("Gtk", G_LOG_LEVEL_CRITICAL);
    disableGlibFatalMasks();
    takeOverGlibOutput();
    g_log("Gtk", G_LOG_LEVEL_CRITICAL, "a critical with %d", 42);
    g_log(nullptr, G_LOG_LEVEL_WARNING, "no domain");
    g_print("printed %s", "text");
    g_printerr("printed to standard error");
    glibPrintErrHandler(nullptr);
    glibPrintHandler(nullptr);

    EXPECT_EQ(shelltest::logBodies(dir.path() + "/early.log"),
              std::vector<std::string>({"[CRITICAL] [Gtk] a critical with 42", "[WARNING] no domain",
                                        "[MESSAGE] [stdout] printed text",
                                        "[WARNING] [stderr] printed to standard error", "[WARNING] [stderr] ",
                                        "[MESSAGE] [stdout] "}));
}

TEST(GlibRouting, DiagnosticsNameMissingResourcesAndUnsetVariables) {
    testsupport::TempDir dir;
    ASSERT_TRUE(openEarlyLog(dir.path() + "/early.log"));
    shelltest::registerBundles();
    testsupport::ScopedEnv set("MERID_ROUTING_TEST_SET", std::string("/a:/b"));
    testsupport::ScopedEnv unset("MERID_ROUTING_TEST_UNSET", std::nullopt);
    logResourcePresence("/meridkestalutility/ui/UserInterface.glade");
    logResourcePresence("/elsewhere/ui/UserInterface.glade");
    logEnvIfSet("MERID_ROUTING_TEST_SET");
    logEnvIfSet("MERID_ROUTING_TEST_UNSET");

    const auto lines = shelltest::logBodies(dir.path() + "/early.log");
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
