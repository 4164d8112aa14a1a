#include "GlobalHandlerEvents.h"
#include "TestSupport.h"

#include <gtest/gtest.h>

#include <functional>

using Status = GlobalHandlerEvents::HandlerEventsStatus;
constexpr Status kOk = GlobalHandlerEvents::Success;
constexpr Status kFail = GlobalHandlerEvents::Failure;

namespace {

class Registry : public ::testing::Test {
protected:
    void SetUp() override {
        events().clearAllHandlers();
        log.clear();
    }
    void TearDown() override { events().clearAllHandlers(); }
    static GlobalHandlerEvents& events() { return GlobalHandlerEvents::getInstance(); }
    testsupport::CapturingLogger log;
};

} // namespace

TEST_F(Registry, FirstRegistrationWinsAndItsStatusIsCutToZeroOrOne) {
    events().addHandler(QUIT_APP, [] { return static_cast<Status>(7); });
    events().addHandler(QUIT_APP, [] { return kOk; });
    EXPECT_TRUE(log.contains("GlobalHandlerEvents: Handler QUIT_APP already exist!", BaseLogger::WARNING));
    EXPECT_EQ(events()._executeHandler(QUIT_APP), kFail);
}

TEST_F(Registry, MissingHandlersAreReportedByName) {
    EXPECT_EQ(events()._executeHandler(SHOW_DEVICE_LIST), kFail);
    auto lines = log.lines();
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0].message, "Execute handler SHOW_DEVICE_LIST");
    EXPECT_EQ(lines[1].message, "Hanler SHOW_DEVICE_LIST did't find");
    EXPECT_EQ(lines[1].type, BaseLogger::ERROR);
    // The key without a name logs an empty one.
    EXPECT_EQ(events()._executeHandler(static_cast<HandlersFuncKeys>(12)), kFail);
    EXPECT_TRUE(log.contains("Hanler  did't find"));
    // A handler with an argument is out of reach of the plain call.
    events().addHandlerWithArgs<LoadStage>(UPLOAD_FIRMWARE, [](LoadStage) { return kOk; });
    EXPECT_EQ(events()._executeHandler(UPLOAD_FIRMWARE), kFail);
}

TEST_F(Registry, EachArgumentListHasAMapOfItsOwn) {
    // Raising before any registration makes the map and reports the miss.
    EXPECT_EQ(events()._executeHandlerWithArgs<int>(UPLOAD_FIRMWARE, 3), kFail);
    EXPECT_TRUE(log.contains("Handler with args UPLOAD_FIRMWARE didn't find", BaseLogger::ERROR));
    EXPECT_TRUE(events().getHandlerMapWithArgs<int>().empty());
    LoadStage seen{};
    events().addHandlerWithArgs<LoadStage>(UPLOAD_FIRMWARE, [&](LoadStage stage) {
        seen = stage;
        return kOk;
    });
    events().addHandlerWithArgs<LoadStage>(UPLOAD_FIRMWARE, [](LoadStage) { return kFail; });
    EXPECT_TRUE(log.contains("Handler with args UPLOAD_FIRMWARE already exist!", BaseLogger::WARNING));
    EXPECT_EQ(events()._executeHandlerWithArgs<LoadStage>(UPLOAD_FIRMWARE, Write), kOk);
    EXPECT_EQ(seen, Write);
    EXPECT_TRUE(events().getHandlerMapWithArgs<int>().empty());
}

TEST_F(Registry, EmptyFunctionCountsAsAbsentButStays) {
    events().addHandler(DISCONNECT, std::function<Status()>());
    events().addHandler(DISCONNECT, [] { return kOk; });
    EXPECT_FALSE(log.contains("already exist!"));
    EXPECT_THROW(events()._executeHandler(DISCONNECT), std::bad_function_call);
}
