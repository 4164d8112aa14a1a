// The processor choice and the upload button.
#include "FirmwareMethodBox.h"
#include "TestSupport.h"
#include "WidgetTestSupport.h"

#include <gtest/gtest.h>

#include <memory>
#include <vector>

using MeridKestalWidgets::FirmwareMethodBox;
using testsupport::CapturingLogger;
using widgettest::KeyRecorder;
using widgettest::loadInterface;

namespace {

std::unique_ptr<FirmwareMethodBox> makeBox(const Glib::RefPtr<Gtk::Builder>& builder) {
    FirmwareMethodBox* box = nullptr;
    builder->get_widget_derived("FirmwareMethodBox", box);
    return std::unique_ptr<FirmwareMethodBox>(box);
}

template <typename T> Glib::RefPtr<T> child(const Glib::RefPtr<Gtk::Builder>& builder, const char* id) {
    return Glib::RefPtr<T>::cast_dynamic(builder->get_object(id));
}

} // namespace

TEST(FirmwareMethodBox, StartFillsTheListAndRaisesNoKey) {
    KeyRecorder keys;
    keys.answer(SELECT_STM32, GlobalHandlerEvents::Success);
    keys.answer(SELECT_ESP32, GlobalHandlerEvents::Success);
    auto builder = loadInterface();
    widgettest::ToplevelsGuard guard(builder);
    CapturingLogger captured;
    auto box = makeBox(builder);
    ASSERT_NE(box, nullptr);

    auto list = child<Gtk::ComboBoxText>(builder, "FirmwareMethodComboBoxText");
    EXPECT_EQ(list->get_active_text(), "STM32");
    EXPECT_EQ(keys.count(SELECT_ESP32), 0);
    EXPECT_EQ(keys.count(SELECT_STM32), 0);
    // The signal is connected all the same.
    list->set_active(1);
    list->set_active(0);
    EXPECT_EQ(list->get_active_text(), "STM32");
    EXPECT_EQ(keys.count(SELECT_ESP32), 1);
    EXPECT_EQ(keys.count(SELECT_STM32), 1);
    EXPECT_EQ(child<Gtk::Label>(builder, "FirmwareMethodLable")->get_text(), "Устройство для прошивки");
    EXPECT_EQ(child<Gtk::Button>(builder, "UploadButton")->get_label(), "Загрузить");
    const std::vector<std::string> expected = {"Constructor", "Definition default values",
                                               "Redefinition labeles"};
    std::vector<std::string> lines;
    for (const auto& line : captured.lines()) {
        if (line.tag == "FirmwareMethodBox: ") {
            lines.push_back(line.message);
        }
    }
    EXPECT_EQ(lines, expected);
}

TEST(FirmwareMethodBox, ChoosingEsp32RaisesItOnceAndAgainNothing) {
    KeyRecorder keys;
    keys.answer(SELECT_STM32, GlobalHandlerEvents::Success);
    keys.answer(SELECT_ESP32, GlobalHandlerEvents::Failure);
    auto builder = loadInterface();
    widgettest::ToplevelsGuard guard(builder);
    auto box = makeBox(builder);
    auto list = child<Gtk::ComboBoxText>(builder, "FirmwareMethodComboBoxText");
    list->set_active_text("ESP32");
    list->set_active_text("ESP32");
    EXPECT_EQ(keys.count(SELECT_ESP32), 1);
    EXPECT_EQ(keys.count(SELECT_STM32), 0);
    // An entry of neither name raises nothing.
    list->append("RP2040");
    list->set_active_text("RP2040");
    EXPECT_EQ(keys.count(SELECT_ESP32), 1);
    EXPECT_EQ(keys.count(SELECT_STM32), 0);
}

TEST(FirmwareMethodBox, UploadClickRaisesTheEraseStage) {
    KeyRecorder keys;
    std::vector<LoadStage> stages;
    GlobalHandlerEvents::getInstance().addHandlerWithArgs<LoadStage>(UPLOAD_FIRMWARE, [&](LoadStage stage) {
        stages.push_back(stage);
        return GlobalHandlerEvents::Failure;
    });
    auto builder = loadInterface();
    widgettest::ToplevelsGuard guard(builder);
    auto box = makeBox(builder);
    child<Gtk::Button>(builder, "UploadButton")->clicked();
    box->upload();
    EXPECT_EQ(stages, (std::vector<LoadStage>{Erase, Erase}));
}

TEST(FirmwareMethodBox, StartsWithoutItsLabelOrItsList) {
    KeyRecorder keys;
    keys.answer(SELECT_STM32, GlobalHandlerEvents::Success);
    // The label's id renamed: only that text is missing.
    auto builder = loadInterface([](std::string& text) {
        text.replace(text.find("id=\"FirmwareMethodLable\""), 24, "id=\"OtherLabel\"");
    });
    widgettest::ToplevelsGuard guard(builder);
    auto box = makeBox(builder);
    ASSERT_NE(box, nullptr);
    EXPECT_EQ(child<Gtk::Button>(builder, "UploadButton")->get_label(), "Загрузить");
    EXPECT_EQ(child<Gtk::Label>(builder, "OtherLabel")->get_text(), "Устройство для прошивки");
    box->redefinitionLabeles();
    EXPECT_EQ(child<Gtk::Button>(builder, "UploadButton")->get_label(), "Upload");

    // Without the list nothing is connected, not even the button.
    auto noList = loadInterface([](std::string& text) {
        text.replace(text.find("id=\"FirmwareMethodComboBoxText\""), 31, "id=\"OtherList\"");
    });
    widgettest::ToplevelsGuard noListGuard(noList);
    auto bare = makeBox(noList);
    ASSERT_NE(bare, nullptr);
    CapturingLogger captured;
    child<Gtk::Button>(noList, "UploadButton")->clicked();
    EXPECT_FALSE(captured.contains("Execute handler with args UPLOAD_FIRMWARE"));
}
