// The connection menu: each item raises its key and logs by the answer.
#include "MenuBar.h"
#include "TestSupport.h"
#include "WidgetTestSupport.h"

#include <gtest/gtest.h>

#include <memory>

using MeridKestalWidgets::MenuBar;
using testsupport::CapturingLogger;
using widgettest::KeyRecorder;
using widgettest::loadInterface;

namespace {

class MenuBarTest : public ::testing::Test {
protected:
    void SetUp() override {
        builder = loadInterface();
        guard = std::make_unique<widgettest::ToplevelsGuard>(builder);
        MenuBar* bar = nullptr;
        builder->get_widget_derived("MenuBar", bar);
        menu.reset(bar);
        ASSERT_NE(menu, nullptr);
    }

    void TearDown() override {
        menu.reset();
        guard.reset();
    }

    Gtk::MenuItem& item(const char* id) {
        return *dynamic_cast<Gtk::MenuItem*>(builder->get_object(id).get());
    }

    KeyRecorder keys;
    Glib::RefPtr<Gtk::Builder> builder;
    std::unique_ptr<widgettest::ToplevelsGuard> guard;
    std::unique_ptr<MenuBar> menu;
};

} // namespace

TEST_F(MenuBarTest, ItemsRaiseTheirKeysAndLogByTheAnswer) {
    keys.answer(CONNECT_DIALOG_OPEN, GlobalHandlerEvents::Success);
    keys.answer(DISCONNECT, GlobalHandlerEvents::Failure);
    keys.answer(QUIT_APP, GlobalHandlerEvents::Failure);
    CapturingLogger captured;
    item("ConnectImageMenuItem").activate();
    item("DisconnectImageMenuItem").activate();
    item("QuitImageMenuItem").activate();
    EXPECT_EQ(keys.count(CONNECT_DIALOG_OPEN), 1);
    EXPECT_EQ(keys.count(DISCONNECT), 1);
    EXPECT_EQ(keys.count(QUIT_APP), 1);
    EXPECT_TRUE(captured.contains("MenuBar: Connection/Connect", BaseLogger::DEBUG));
    EXPECT_TRUE(captured.contains("MenuBar: USB connection window open!", BaseLogger::DEBUG));
    EXPECT_TRUE(captured.contains("MenuBar: Connection/Disconnect", BaseLogger::DEBUG));
    EXPECT_TRUE(captured.contains("MenuBar: Error with USB disconnection!", BaseLogger::ERROR));
    EXPECT_TRUE(captured.contains("MenuBar: Connection/Quit", BaseLogger::DEBUG));
    EXPECT_TRUE(captured.contains("MenuBar: Error with closing", BaseLogger::ERROR));
}

TEST_F(MenuBarTest, MissingHandlersAreFailuresThatLeaveTheMenuUsable) {
    keys.answer(QUIT_APP, GlobalHandlerEvents::Success);
    CapturingLogger captured;
    item("ConnectImageMenuItem").activate();
    EXPECT_TRUE(
        captured.contains("GlobalHandlerEvents: Hanler CONNECT_DIALOG_OPEN did't find", BaseLogger::ERROR));
    EXPECT_TRUE(captured.contains("MenuBar: Error with USB connection window!", BaseLogger::ERROR));
    item("QuitImageMenuItem").activate();
    EXPECT_EQ(keys.count(QUIT_APP), 1);
    // A successful quit says nothing more.
    EXPECT_EQ(captured.count("MenuBar: "), 3u);
}

TEST_F(MenuBarTest, TextsFlipTogetherAndKeepNoMnemonic) {
    EXPECT_EQ(item("ConnectionMenuItem").get_label(), "Подключение");
    EXPECT_EQ(item("ConnectImageMenuItem").get_label(), "Подключиться");
    EXPECT_EQ(item("DisconnectImageMenuItem").get_label(), "Отключиться");
    EXPECT_EQ(item("QuitImageMenuItem").get_label(), "Выход");
    for (const char* id : {"ConnectImageMenuItem", "DisconnectImageMenuItem", "QuitImageMenuItem"}) {
        EXPECT_TRUE(item(id).get_use_underline()) << id;
    }
    CapturingLogger captured;
    menu->redefinitionLabeles();
    EXPECT_TRUE(captured.contains("MenuBar: Redefinition labeles ", BaseLogger::DEBUG));
    EXPECT_EQ(item("ConnectionMenuItem").get_label(), "Connection");
    EXPECT_EQ(item("ConnectImageMenuItem").get_label(), "Connect");
    EXPECT_EQ(item("DisconnectImageMenuItem").get_label(), "Disconnect");
    EXPECT_EQ(item("QuitImageMenuItem").get_label(), "Quit");
    menu->redefinitionLabeles();
    EXPECT_EQ(item("ConnectionMenuItem").get_label(), "Подключение");
    EXPECT_EQ(item("QuitImageMenuItem").get_label(), "Выход");
}
