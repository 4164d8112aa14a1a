#include "GlibLogRouting.h"
#include "EarlyLog.h"
#include "ShellTestSupport.h"
#include "TestSupport.h"

#include <gtest/gtest.h>

// GLib's log and print output lands in the early log, no level is fatal any
// more, and the diagnostics say what is missing.
TEST(GlibRouting, OutputAndDiagnosticsReachTheEarlyLogAndNoLevelIsFatal) {
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
    testsupport::ScopedEnv unset("MERID_ROUTING_TEST_UNSET", std::nullopt);
    logEnvIfSet("MERID_ROUTING_TEST_UNSET");
    logResourcePresence("/elsewhere/ui/UserInterface.glade");

    auto lines = shelltest::logBodies(dir.path() + "/early.log");
    ASSERT_EQ(lines.size(), 8u);
    EXPECT_EQ(lines.back().rfind("[WARNING] [GResource] Missing: /elsewhere/ui/UserInterface.glade (", 0),
              0u);
    lines.pop_back();
    EXPECT_EQ(lines, std::vector<std::string>({"[CRITICAL] [Gtk] a critical with 42", "[WARNING] no domain",
                                               "[MESSAGE] [stdout] printed text",
                                               "[WARNING] [stderr] printed to standard error",
                                               "[WARNING] [stderr] ", "[MESSAGE] [stdout] ",
                                               "[MESSAGE] [Env] MERID_ROUTING_TEST_UNSET is not set"}));
}
