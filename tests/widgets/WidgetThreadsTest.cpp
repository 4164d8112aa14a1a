// The widgets that other threads reach: the device list's filler and the
// image path asked for by a load on the listener's thread.
#include "DeviceListBox.h"
#include "SelectFirmwareBox.h"
#include "TestSupport.h"
#include "WidgetTestSupport.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <filesystem>
#include <memory>
#include <string>
#include <thread>
#include <vector>

using MeridKestalWidgets::DeviceListBox;
using MeridKestalWidgets::SelectFirmwareBox;
using testsupport::CapturingLogger;
using widgettest::KeyRecorder;
using widgettest::loadInterface;
using widgettest::pumpUntil;

namespace {

DeviceInfo deviceInfo(std::uint8_t address, const std::string& name) {
    DeviceInfo info;
    info.address = address;
    info.nameLength = static_cast<std::uint8_t>(name.size());
    std::memcpy(info.name, name.data(), name.size());
    return info;
}

class DeviceListBoxTest : public ::testing::Test {
protected:
    void SetUp() override {
        builder = loadInterface();
        guard = std::make_unique<widgettest::ToplevelsGuard>(builder);
        DeviceListBox* made = nullptr;
        builder->get_widget_derived("ListDeviceFrame", made);
        box.reset(made);
        ASSERT_NE(box, nullptr);
        box->deviceHandler = &model;
        list = dynamic_cast<Gtk::ListBox*>(builder->get_object("ListDeviceListBox").get());
        button = dynamic_cast<Gtk::Button*>(builder->get_object("SearchDeviceButton").get());
    }

    void TearDown() override {
        box.reset();
        guard.reset();
    }

    std::vector<std::string> rows() {
        std::vector<std::string> texts;
        for (Gtk::Widget* child : list->get_children()) {
            auto* row = dynamic_cast<Gtk::ListBoxRow*>(child);
            auto* label = row != nullptr ? dynamic_cast<Gtk::Label*>(row->get_child()) : nullptr;
            texts.push_back(label != nullptr ? std::string(label->get_text()) : "<no label>");
        }
        return texts;
    }

    bool ended(CapturingLogger& captured, std::size_t passes) {
        return captured.count("DeviceListBox: Thread is terminated") >= passes;
    }

    KeyRecorder keys;
    DeviceHandler model;
    Glib::RefPtr<Gtk::Builder> builder;
    std::unique_ptr<widgettest::ToplevelsGuard> guard;
    std::unique_ptr<DeviceListBox> box;
    Gtk::ListBox* list = nullptr;
    Gtk::Button* button = nullptr;
};

} // namespace

TEST_F(DeviceListBoxTest, AFailedSearchStartsNoThread) {
    keys.answer(SEARCH_DEVICES, GlobalHandlerEvents::Failure);
    model.addDevice(deviceInfo(3, "Old"));
    box->addToList("Old");
    CapturingLogger captured;
    button->clicked();
    EXPECT_TRUE(captured.contains(
        "DeviceListBox: Device search request transmitted with error (no active connection?)",
        BaseLogger::ERROR));
    // The press cleared the list and the model all the same.
    EXPECT_TRUE(rows().empty());
    EXPECT_TRUE(model.getDeviceListCopy().empty());
    pumpUntil([] { return false; }, std::chrono::milliseconds(300));
    EXPECT_FALSE(captured.contains("DeviceListBox: Thread is started"));
    EXPECT_TRUE(rows().empty());
}

TEST_F(DeviceListBoxTest, OnePassAfter200MillisecondsInAddressOrder) {
    keys.answer(SEARCH_DEVICES, GlobalHandlerEvents::Success);
    CapturingLogger captured;
    const auto pressed = std::chrono::steady_clock::now();
    button->clicked();
    // Answers arrive while the filler waits; two share a name.
    model.addDevice(deviceInfo(9, "Radio"));
    model.addDevice(deviceInfo(2, "Motor"));
    model.addDevice(deviceInfo(5, "Radio"));
    EXPECT_TRUE(captured.contains("DeviceListBox: Device search request transmitted successfully!",
                                  BaseLogger::INFO));
    EXPECT_TRUE(rows().empty());
    ASSERT_TRUE(pumpUntil([&] { return !rows().empty(); }));
    EXPECT_GE(std::chrono::steady_clock::now() - pressed, std::chrono::milliseconds(200));
    EXPECT_EQ(rows(), (std::vector<std::string>{"Motor", "Radio", "Radio"}));
    ASSERT_TRUE(pumpUntil([&] { return ended(captured, 1); }));

    // A later answer waits for the next press.
    model.addDevice(deviceInfo(1, "Late"));
    pumpUntil([] { return false; }, std::chrono::milliseconds(300));
    EXPECT_EQ(rows().size(), 3u);
}

TEST_F(DeviceListBoxTest, AnEmptyModelAddsNoRowAndTheThreadEnds) {
    keys.answer(SEARCH_DEVICES, GlobalHandlerEvents::Success);
    CapturingLogger captured;
    button->clicked();
    ASSERT_TRUE(pumpUntil([&] { return ended(captured, 1); }));
    pumpUntil([] { return false; }, std::chrono::milliseconds(50));
    EXPECT_TRUE(rows().empty());
    // A new press starts a new thread.
    button->clicked();
    model.addDevice(deviceInfo(4, "Pump"));
    ASSERT_TRUE(pumpUntil([&] { return ended(captured, 2); }));
    ASSERT_TRUE(pumpUntil([&] { return rows() == std::vector<std::string>{"Pump"}; }));
    EXPECT_EQ(captured.count("DeviceListBox: Thread is started"), 2u);
}

TEST_F(DeviceListBoxTest, TheWidgetsEndWaitsForAPassInFlight) {
    keys.answer(SEARCH_DEVICES, GlobalHandlerEvents::Success);
    CapturingLogger captured;
    button->clicked();
    model.addDevice(deviceInfo(6, "Valve"));
    box.reset();
    // The pass has ended by the time the widget is gone.
    EXPECT_TRUE(ended(captured, 1));
}

TEST(SelectFirmwareBoxThreads, ThePathIsAskedForWhileTheWindowChangesTheChoice) {
    KeyRecorder keys;
    auto builder = loadInterface();
    widgettest::ToplevelsGuard guard(builder);
    SelectFirmwareBox* made = nullptr;
    builder->get_widget_derived("SelectFirmwareBox", made);
    std::unique_ptr<SelectFirmwareBox> box(made);
    auto* modeSwitch = dynamic_cast<Gtk::Switch*>(builder->get_object("FirmwareSourceModeSwitch").get());
    std::string user = "/images/app.bin";
    HandlersFuncKeys key = SEARCH_FILE_STM32;
    box->setFilePath(user, key);

    const std::string image = box->ensurePreinstalledFirmwareOnDisk(SelectFirmwareBox::Stm32);
    std::vector<std::string> seen;
    std::thread listener([&] {
        for (int i = 0; i < 200; ++i) {
            seen.push_back(box->getFilePath());
        }
    });
    for (int i = 0; i < 20; ++i) {
        modeSwitch->set_active(i % 2 == 0);
    }
    listener.join();
    for (const auto& path : seen) {
        EXPECT_TRUE(path == user || path == image) << path;
    }
}
