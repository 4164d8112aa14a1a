#include "GlibLogRouting.h"
#include "EarlyLog.h"
#include "ShellTestSupport.h"
#include "TestSupport.h"

#include <gtest/gtest.h>

using shelltest::fileLines;
using shelltest::withoutTimestamp;
using testsupport::ScopedEnv;
using testsupport::TempDir;

namespace {

class GlibRouting : public ::testing::Test {
protected:
    void SetUp() override {
        path = dir.path() + "/early.log";
        ASSERT_TRUE(openEarlyLog(path));
    }

    // The bodies of the lines after the header.
    std::vector<std::string> bodies() {
        std::vector<std::string> result;
        const auto lines = fileLines(path);
        for (std::size_t index = 2; index < lines.size(); ++index) {
            result.push_back(withoutTimestamp(lines[index]));
        }
        return result;
    }

    TempDir dir;
    std::string path;
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

    const auto lines = bodies();
    ASSERT_EQ(lines.size(), 6u);
    EXPECT_EQ(lines[0], "[WARNING] [SomeLibrary] a warning with 42");
    EXPECT_EQ(lines[1], "[MESSAGE] no domain");
    EXPECT_EQ(lines[2], "[MESSAGE] [stdout] printed text");
    EXPECT_EQ(lines[3], "[WARNING] [stderr] printed to standard error");
    EXPECT_EQ(lines[4], "[WARNING] [stderr] ");
    EXPECT_EQ(lines[5], "[MESSAGE] [stdout] ");
}

TEST_F(GlibRouting, FatalMasksAreCleared) {
    g_log_set_always_fatal(static_cast<GLogLevelFlags>(G_LOG_LEVEL_CRITICAL | G_LOG_LEVEL_WARNING));
    g_log_set_fatal_mask("Gtk", G_LOG_LEVEL_CRITICAL);
    g_log_set_fatal_mask("Pango", G_LOG_LEVEL_WARNING);
    disableGlibFatalMasks();

    const GLogLevelFlags always = g_log_set_always_fatal(static_cast<GLogLevelFlags>(0));
    EXPECT_EQ(always & (G_LOG_LEVEL_CRITICAL | G_LOG_LEVEL_WARNING), 0);
    EXPECT_EQ(g_log_set_fatal_mask("Gtk", static_cast<GLogLevelFlags>(0)) & G_LOG_LEVEL_CRITICAL, 0);
    EXPECT_EQ(g_log_set_fatal_mask("Pango", static_cast<GLogLevelFlags>(0)) & G_LOG_LEVEL_WARNING, 0);
    // A critical now only leaves a line.
    takeOverGlibOutput();
    g_log("Gtk", G_LOG_LEVEL_CRITICAL, "survivable");
    EXPECT_EQ(bodies().back(), "[CRITICAL] [Gtk] survivable");
}

TEST_F(GlibRouting, ResourcePresenceNamesWhatIsMissing) {
    shelltest::registerBundles();
    logResourcePresence("/meridkestalutility/ui/UserInterface.glade");
    logResourcePresence("/elsewhere/ui/UserInterface.glade");

    const auto lines = bodies();
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0], "[MESSAGE] [GResource] OK: /meridkestalutility/ui/UserInterface.glade");
    EXPECT_EQ(lines[1].rfind("[WARNING] [GResource] Missing: /elsewhere/ui/UserInterface.glade (", 0), 0u)
        << lines[1];
    EXPECT_EQ(lines[1].back(), ')');
    EXPECT_EQ(lines[1].find("unknown error"), std::string::npos);
}

TEST_F(GlibRouting, EnvironmentLinesShowValueOrAbsence) {
    ScopedEnv set("MERID_ROUTING_TEST_SET", std::string("/a:/b"));
    ScopedEnv unset("MERID_ROUTING_TEST_UNSET", std::nullopt);
    logEnvIfSet("MERID_ROUTING_TEST_SET");
    logEnvIfSet("MERID_ROUTING_TEST_UNSET");

    const auto lines = bodies();
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0], "[MESSAGE] [Env] MERID_ROUTING_TEST_SET=/a:/b");
    EXPECT_EQ(lines[1], "[MESSAGE] [Env] MERID_ROUTING_TEST_UNSET is not set");
}
