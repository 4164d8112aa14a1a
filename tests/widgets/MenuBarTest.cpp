// The connection menu logs by the answer of the key each item raises; the
// failures are reached only here, where the handlers are the test's.
#include "MenuBar.h"
#include "TestSupport.h"
#include "WidgetTestSupport.h"

using testsupport::CapturingLogger;

namespace {

class MenuBarTest : public widgettest::DerivedWidgetTest<MeridKestalWidgets::MenuBar> {
protected:
    MenuBarTest() : DerivedWidgetTest("MenuBar") {}
    void activate(const char* id) { child<Gtk::MenuItem>(id).activate(); }
};

} // namespace

TEST_F(MenuBarTest, ItemsRaiseTheirKeysAndLogByTheAnswer) {
    keys.answer(DISCONNECT, GlobalHandlerEvents::Failure);
    keys.answer(QUIT_APP, GlobalHandlerEvents::Failure);
    CapturingLogger captured;
    // No handler for the dialog: a failure like any other.
    activate("ConnectImageMenuItem");
    activate("DisconnectImageMenuItem");
    activate("QuitImageMenuItem");
    EXPECT_EQ(keys.count(DISCONNECT), 1);
    EXPECT_EQ(keys.count(QUIT_APP), 1);
    EXPECT_TRUE(captured.contains("MenuBar: Error with USB connection window!", BaseLogger::ERROR));
    EXPECT_TRUE(captured.contains("MenuBar: Error with USB disconnection!", BaseLogger::ERROR));
    EXPECT_TRUE(captured.contains("MenuBar: Error with closing", BaseLogger::ERROR));

    // A successful quit says nothing more than its item's line.
    GlobalHandlerEvents::getInstance().clearAllHandlers();
    keys.answer(QUIT_APP, GlobalHandlerEvents::Success);
    captured.clear();
    activate("QuitImageMenuItem");
    EXPECT_EQ(captured.count("MenuBar: "), 1u);
}
