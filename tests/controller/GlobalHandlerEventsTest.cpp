#include "GlobalHandlerEvents.h"
#include "TestSupport.h"

#include <gtest/gtest.h>

#include <functional>

using testsupport::CapturingLogger;
using Status = GlobalHandlerEvents::HandlerEventsStatus;

namespace {

class Registry : public ::testing::Test {
protected:
    void SetUp() override {
        events().clearAllHandlers();
        log.clear();
    }
    void TearDown() override { events().clearAllHandlers(); }
    static GlobalHandlerEvents& events() { return GlobalHandlerEvents::getInstance(); }
    CapturingLogger log;
};

} // namespace

TEST_F(Registry, FirstRegistrationWins) {
    int calls = 0;
    events().addHandler(QUIT_APP, [&] {
        calls += 1;
        return GlobalHandlerEvents::Success;
    });
    events().addHandler(QUIT_APP, [&] {
        calls += 100;
        return GlobalHandlerEvents::Failure;
    });
    EXPECT_TRUE(log.contains("Add handler QUIT_APP", BaseLogger::DEBUG));
    EXPECT_TRUE(log.contains("GlobalHandlerEvents: Handler QUIT_APP already exist!", BaseLogger::WARNING));
    EXPECT_EQ(events()._executeHandler(QUIT_APP), GlobalHandlerEvents::Success);
    EXPECT_EQ(calls, 1);
    EXPECT_TRUE(log.contains("Execute handler QUIT_APP", BaseLogger::DEBUG));
}

TEST_F(Registry, MissingHandlerLines) {
    EXPECT_EQ(events()._executeHandler(SHOW_DEVICE_LIST), GlobalHandlerEvents::Failure);
    auto lines = log.lines();
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0].message, "Execute handler SHOW_DEVICE_LIST");
    EXPECT_EQ(lines[0].type, BaseLogger::DEBUG);
    EXPECT_EQ(lines[1].message, "Hanler SHOW_DEVICE_LIST did't find");
    EXPECT_EQ(lines[1].type, BaseLogger::ERROR);
    EXPECT_EQ(lines[1].tag, "GlobalHandlerEvents: ");

    // The argument handler lives in its own map, out of reach of the plain call.
    events().addHandlerWithArgs<LoadStage>(UPLOAD_FIRMWARE, [](LoadStage) { return GlobalHandlerEvents::Success; });
    EXPECT_EQ(events()._executeHandler(UPLOAD_FIRMWARE), GlobalHandlerEvents::Failure);
    EXPECT_TRUE(log.contains("Hanler UPLOAD_FIRMWARE did't find"));
}

TEST_F(Registry, NamelessKeyLogsAnEmptyName) {
    EXPECT_EQ(events()._executeHandler(static_cast<HandlersFuncKeys>(12)), GlobalHandlerEvents::Failure);
    EXPECT_TRUE(log.contains("Hanler  did't find"));
    EXPECT_EQ(events().keyName(static_cast<HandlersFuncKeys>(12)), "");
    EXPECT_EQ(events().keyName(SET_LISTENER_TIMEOUT), "SET_LISTENER_TIMEOUT");
}

TEST_F(Registry, ArgumentHandlers) {
    // Executing first, before any registration, makes the map and reports the miss.
    EXPECT_EQ(events()._executeHandlerWithArgs<int>(UPLOAD_FIRMWARE, 3), GlobalHandlerEvents::Failure);
    EXPECT_TRUE(log.contains("Execute handler with args UPLOAD_FIRMWARE", BaseLogger::DEBUG));
    EXPECT_TRUE(log.contains("Handler with args UPLOAD_FIRMWARE didn't find", BaseLogger::ERROR));
    auto& intMap = events().getHandlerMapWithArgs<int>();
    EXPECT_TRUE(intMap.empty());
    EXPECT_EQ(&intMap, &events().getHandlerMapWithArgs<int>()) << "one map per argument list";

    LoadStage seen{};
    events().addHandlerWithArgs<LoadStage>(UPLOAD_FIRMWARE, [&](LoadStage stage) {
        seen = stage;
        return stage == Write ? GlobalHandlerEvents::Success : GlobalHandlerEvents::Failure;
    });
    events().addHandlerWithArgs<LoadStage>(UPLOAD_FIRMWARE, [](LoadStage) { return GlobalHandlerEvents::Success; });
    EXPECT_TRUE(log.contains("Add handler with args UPLOAD_FIRMWARE", BaseLogger::DEBUG));
    EXPECT_TRUE(log.contains("Handler with args UPLOAD_FIRMWARE already exist!", BaseLogger::WARNING));
    EXPECT_EQ(events()._executeHandlerWithArgs<LoadStage>(UPLOAD_FIRMWARE, Write), GlobalHandlerEvents::Success);
    EXPECT_EQ(seen, Write);
    EXPECT_EQ(events()._executeHandlerWithArgs<LoadStage>(UPLOAD_FIRMWARE, Erase), GlobalHandlerEvents::Failure);
    EXPECT_TRUE(intMap.empty()) << "maps of other argument lists stay apart";
}

TEST_F(Registry, StatusIsReducedToZeroOrOne) {
    events().addHandler(SEARCH_DEVICES, [] { return static_cast<Status>(7); });
    EXPECT_EQ(events()._executeHandler(SEARCH_DEVICES), GlobalHandlerEvents::Failure);
}

TEST_F(Registry, EmptyFunctionCountsAsAbsentButStays) {
    events().addHandler(DISCONNECT, std::function<Status()>());
    // The second add passes the test but finds the key taken: the empty entry stays.
    events().addHandler(DISCONNECT, [] { return GlobalHandlerEvents::Success; });
    EXPECT_EQ(log.count("Add handler DISCONNECT"), 2u);
    EXPECT_THROW(events()._executeHandler(DISCONNECT), std::bad_function_call);
}

TEST_F(Registry, HandlerExceptionsReachTheCaller) {
    events().addHandler(SWITCH_LANG, []() -> Status { throw std::runtime_error("from handler"); });
    EXPECT_THROW(events()._executeHandler(SWITCH_LANG), std::runtime_error);
}
