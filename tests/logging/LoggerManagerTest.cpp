#include "LoggerManager.h"
#include "TestSupport.h"

#include <gtest/gtest.h>

#include <iostream>
#include <sstream>
#include <stdexcept>

using testsupport::CapturingLogger;
using testsupport::ScopedEnv;

namespace {

class ThrowingLogger : public BaseLogger {
public:
    void log(const std::string&, MessageType, const std::string&) override {
        ++calls;
        throw std::runtime_error("sink is broken");
    }
    int calls = 0;
};

class CerrCapture {
public:
    CerrCapture() : old(std::cerr.rdbuf(buffer.rdbuf())) {}
    ~CerrCapture() { std::cerr.rdbuf(old); }
    std::string text() const { return buffer.str(); }

private:
    std::ostringstream buffer;
    std::streambuf* old;
};

const BaseLogger::MessageType kAllTypes[] = {BaseLogger::DEBUG, BaseLogger::INFO, BaseLogger::WARNING,
                                             BaseLogger::ERROR, BaseLogger::FATAL};

} // namespace

TEST(LoggerManager, LevelFilterTable) {
    struct Row {
        LoggerManager::Level level;
        bool passes[5]; // DEBUG INFO WARNING ERROR FATAL
    };
    const Row table[] = {
        {LoggerManager::FULL, {true, true, true, true, true}},
        {LoggerManager::IMPORTANT, {false, false, true, true, true}},
        // MINIMUM lets ERROR alone through: FATAL is dropped as well.
        {LoggerManager::MINIMUM, {false, false, false, true, false}},
        // A level outside the table filters nothing.
        {static_cast<LoggerManager::Level>(7), {true, true, true, true, true}},
    };
    CapturingLogger sink;
    auto& manager = LoggerManager::getInstance();
    for (const Row& row : table) {
        manager.setGlobalLevel(row.level);
        for (int i = 0; i < 5; ++i) {
            sink.clear();
            manager.log("probe", kAllTypes[i], "Test: ");
            EXPECT_EQ(sink.lines().size(), row.passes[i] ? 1u : 0u)
                << "level " << int(row.level) << " type " << int(kAllTypes[i]);
        }
    }
}

TEST(LoggerManager, ListOperations) {
    CapturingLogger sink;
    auto& manager = LoggerManager::getInstance();
    manager.clearAllLoggers();
    manager.addLogger(LoggerManager::CONSOLE);
    manager.addLogger(LoggerManager::CONSOLE);
    manager.log("once", BaseLogger::INFO, "");
    EXPECT_EQ(sink.count("once"), 1u) << "addLogger must not add a type twice";

    manager.setActiveLoggers({LoggerManager::CONSOLE, LoggerManager::CONSOLE});
    manager.log("twice", BaseLogger::INFO, "");
    EXPECT_EQ(sink.count("twice"), 2u) << "setActiveLoggers keeps duplicates";

    manager.removeLogger(LoggerManager::CONSOLE);
    EXPECT_FALSE(manager.checkLoggerExists(LoggerManager::CONSOLE));
    manager.log("gone", BaseLogger::ERROR, "");
    EXPECT_EQ(sink.count("gone"), 0u);

    manager.addLogger(LoggerManager::CONSOLE);
    manager.setGlobalLevel(LoggerManager::MINIMUM);
    manager.clearAllLoggers();
    EXPECT_EQ(manager.getGlobalLevel(), LoggerManager::MINIMUM) << "clearing the list keeps the level";
    manager.setGlobalLevel(LoggerManager::FULL);
}

TEST(LoggerManager, ThrowingSinkDoesNotStopTheNext) {
    CapturingLogger second;
    ThrowingLogger first;
    auto& manager = LoggerManager::getInstance();
    manager.overrideSink(LoggerManager::FILE, &first);
    manager.setActiveLoggers({LoggerManager::FILE, LoggerManager::CONSOLE});
    {
        CerrCapture err;
        manager.log("still delivered", BaseLogger::WARNING, "Tag: ");
        EXPECT_EQ(err.text(), "Logger error: sink is broken\n");
    }
    manager.overrideSink(LoggerManager::FILE, nullptr);
    EXPECT_EQ(first.calls, 1);
    ASSERT_EQ(second.lines().size(), 1u);
    EXPECT_EQ(second.lines()[0].message, "still delivered");
    EXPECT_EQ(second.lines()[0].tag, "Tag: ");
}

TEST(LoggerManager, UnknownTypeIsRefused) {
    CapturingLogger sink;
    auto& manager = LoggerManager::getInstance();
    EXPECT_THROW(
        {
            try {
                manager.getLoggerInstance(static_cast<LoggerManager::LoggerType>(5));
            } catch (const std::invalid_argument& error) {
                EXPECT_STREQ(error.what(), "Unknown logger type");
                throw;
            }
        },
        std::invalid_argument);
    // In the list, an unknown entry is reported and skipped.
    manager.setActiveLoggers({static_cast<LoggerManager::LoggerType>(5), LoggerManager::CONSOLE});
    CerrCapture err;
    manager.log("after unknown", BaseLogger::INFO, "");
    EXPECT_EQ(err.text(), "Logger error: Unknown logger type\n");
    EXPECT_TRUE(sink.contains("after unknown"));
}

TEST(LoggerManager, LevelFromEnvironment) {
    auto& manager = LoggerManager::getInstance();
    struct Case {
        std::optional<std::string> value;
        LoggerManager::Level expected;
        bool listKept;
    };
    const Case cases[] = {
        {std::nullopt, LoggerManager::FULL, true},   {std::string(""), LoggerManager::FULL, true},
        {std::string("important"), LoggerManager::IMPORTANT, true},
        {std::string("MiNiMuM"), LoggerManager::MINIMUM, true},
        {std::string("Full"), LoggerManager::FULL, true},
        {std::string("verbose"), LoggerManager::FULL, true},
        // OFF empties the list and leaves the level alone.
        {std::string("oFf"), LoggerManager::FULL, false},
    };
    for (const Case& c : cases) {
        manager.setActiveLoggers({LoggerManager::CONSOLE});
        manager.setGlobalLevel(LoggerManager::FULL);
        ScopedEnv env("MERID_LOG_LEVEL", c.value);
        manager.applyLevelFromEnvironment();
        EXPECT_EQ(manager.getGlobalLevel(), c.expected) << c.value.value_or("(unset)");
        EXPECT_EQ(manager.checkLoggerExists(LoggerManager::CONSOLE), c.listKept) << c.value.value_or("(unset)");
    }
    manager.clearAllLoggers();
}
