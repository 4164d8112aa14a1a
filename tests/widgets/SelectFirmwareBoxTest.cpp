// The choice of the image: user files, preinstalled images and their
// write-out to the temporary directory.
#include "SelectFirmwareBox.h"
#include "MeridResources.h"
#include "TestSupport.h"
#include "WidgetTestSupport.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <unistd.h>

using MeridKestalWidgets::SelectFirmwareBox;
using testsupport::CapturingLogger;
using widgettest::KeyRecorder;
using widgettest::loadInterface;

namespace {

namespace fs = std::filesystem;

constexpr std::uintmax_t kEsp32Size = 1803184;
constexpr std::uintmax_t kStm32Size = 37312;

// CTest runs these cases as parallel processes, and one of them puts a file
// where the firmware folder goes: each process gets a temporary directory of
// its own before the toolkit reads (and keeps) the variable.
void useOwnTemporaryDirectory() {
    static const bool done = [] {
        const char* base = std::getenv("TMPDIR");
        fs::path dir = fs::path(base != nullptr && *base != '\0' ? base : "/tmp") /
                       ("firmware-box-" + std::to_string(::getpid()));
        fs::create_directories(dir);
        ::setenv("TMPDIR", dir.c_str(), 1);
        return true;
    }();
    (void)done;
}

class SelectFirmwareBoxTest : public ::testing::Test {
protected:
    void SetUp() override {
        useOwnTemporaryDirectory();
        root = fs::path(Glib::get_tmp_dir()) / "MeridKestalUtility";
        fs::remove_all(root);
        builder = loadInterface();
        guard = std::make_unique<widgettest::ToplevelsGuard>(builder);
        SelectFirmwareBox* made = nullptr;
        builder->get_widget_derived("SelectFirmwareBox", made);
        box.reset(made);
        ASSERT_NE(box, nullptr);
    }

    void TearDown() override {
        box.reset();
        guard.reset();
        fs::remove_all(root);
    }

    template <typename T> T& child(const char* id) {
        return *dynamic_cast<T*>(builder->get_object(id).get());
    }

    void setSwitch(bool on) { child<Gtk::Switch>("FirmwareSourceModeSwitch").set_active(on); }
    std::string entryText(const char* id) { return child<Gtk::Entry>(id).get_text(); }
    std::string tooltip(const char* id) { return child<Gtk::Entry>(id).get_tooltip_text(); }
    bool sensitive(const char* id) { return child<Gtk::Widget>(id).get_sensitive(); }

    void pick(const std::string& path, HandlersFuncKeys key) {
        std::string copy = path;
        box->setFilePath(copy, key);
    }

    fs::path esp32Image() { return root / "firmware" / "merid_firmware.bin"; }
    fs::path stm32Image() { return root / "firmware" / "Tovik_2.13.319.f75a0c3_aes.bin"; }

    static void writeFile(const fs::path& path, std::uintmax_t size, char fill) {
        fs::create_directories(path.parent_path());
        std::ofstream(path, std::ios::binary) << std::string(size, fill);
    }

    static char firstByte(const fs::path& path) {
        std::ifstream in(path, std::ios::binary);
        return static_cast<char>(in.get());
    }

    KeyRecorder keys;
    fs::path root;
    Glib::RefPtr<Gtk::Builder> builder;
    std::unique_ptr<widgettest::ToplevelsGuard> guard;
    std::unique_ptr<SelectFirmwareBox> box;
};

} // namespace

TEST_F(SelectFirmwareBoxTest, WithoutAFileTheEntriesShowADotAndThePathIsEmpty) {
    EXPECT_EQ(entryText("SelectFirmwareSearchEntryStm32"), ".");
    EXPECT_EQ(entryText("SelectFirmwareSearchEntryEsp32"), ".");
    EXPECT_EQ(tooltip("SelectFirmwareSearchEntryStm32"), "");
    EXPECT_EQ(box->getFilePath(), "");
    // The button stays usable without a file: the load refuses it later.
    EXPECT_TRUE(sensitive("UploadButton"));
    EXPECT_EQ(child<Gtk::Label>("FirmwareSourceModeSwitchLabel").get_label(),
              "Использовать предустановленную прошивку");
    EXPECT_EQ(child<Gtk::Button>("SelectFirmwareEsp32Button").get_label(), "Поиск");
}

TEST_F(SelectFirmwareBoxTest, UserFilesFollowTheTarget) {
    box->esp32Inactive();
    box->stm32Active();
    EXPECT_FALSE(sensitive("SelectFirmwareEsp32Button"));
    EXPECT_FALSE(sensitive("SelectFirmwareSearchEntryEsp32"));
    EXPECT_TRUE(sensitive("SelectFirmwareStm32Button"));

    pick("/images/stm32/app.bin", SEARCH_FILE_STM32);
    pick("/images/esp32/radio.bin", SEARCH_FILE_ESP32);
    EXPECT_EQ(entryText("SelectFirmwareSearchEntryStm32"), "app.bin");
    EXPECT_EQ(tooltip("SelectFirmwareSearchEntryStm32"), "/images/stm32/app.bin");
    EXPECT_EQ(entryText("SelectFirmwareSearchEntryEsp32"), "radio.bin");
    EXPECT_EQ(box->getFilePath(), "/images/stm32/app.bin");

    box->stm32Inactive();
    box->esp32Active();
    EXPECT_TRUE(sensitive("SelectFirmwareEsp32Button"));
    EXPECT_FALSE(sensitive("SelectFirmwareStm32Button"));
    EXPECT_EQ(box->getFilePath(), "/images/esp32/radio.bin");
    // Any other key is ignored.
    pick("/elsewhere.bin", UPLOAD_FIRMWARE);
    EXPECT_EQ(box->getFilePath(), "/images/esp32/radio.bin");
}

TEST_F(SelectFirmwareBoxTest, TheSwitchWritesBothImagesAndBringsTheUserFilesBack) {
    pick("/images/stm32/app.bin", SEARCH_FILE_STM32);
    setSwitch(true);
    ASSERT_EQ(fs::file_size(esp32Image()), kEsp32Size);
    ASSERT_EQ(fs::file_size(stm32Image()), kStm32Size);
    EXPECT_EQ(entryText("SelectFirmwareSearchEntryStm32"), "Tovik_2.13.319.f75a0c3_aes.bin");
    EXPECT_EQ(entryText("SelectFirmwareSearchEntryEsp32"), "merid_firmware.bin");
    EXPECT_EQ(tooltip("SelectFirmwareSearchEntryEsp32"), esp32Image().string());
    for (const char* id : {"SelectFirmwareEsp32Button", "SelectFirmwareSearchEntryEsp32",
                           "SelectFirmwareStm32Button", "SelectFirmwareSearchEntryStm32"}) {
        EXPECT_FALSE(sensitive(id)) << id;
    }
    EXPECT_TRUE(sensitive("UploadButton"));
    EXPECT_EQ(box->getFilePath(), stm32Image().string());

    // A pick while the images are in use changes nothing at all.
    pick("/images/stm32/other.bin", SEARCH_FILE_STM32);
    EXPECT_EQ(entryText("SelectFirmwareSearchEntryStm32"), "Tovik_2.13.319.f75a0c3_aes.bin");
    EXPECT_EQ(box->getFilePath(), stm32Image().string());

    setSwitch(false);
    EXPECT_EQ(entryText("SelectFirmwareSearchEntryStm32"), "app.bin");
    EXPECT_EQ(tooltip("SelectFirmwareSearchEntryStm32"), "/images/stm32/app.bin");
    EXPECT_EQ(entryText("SelectFirmwareSearchEntryEsp32"), ".");
    EXPECT_EQ(tooltip("SelectFirmwareSearchEntryEsp32"), "");
    EXPECT_EQ(box->getFilePath(), "/images/stm32/app.bin");
}

TEST_F(SelectFirmwareBoxTest, OnlyTheSizeDecidesWhetherAnImageIsRewritten) {
    // The right size with other content is kept; one byte more is replaced.
    writeFile(stm32Image(), kStm32Size, 'x');
    writeFile(esp32Image(), kEsp32Size + 1, 'x');
    setSwitch(true);
    EXPECT_EQ(firstByte(stm32Image()), 'x');
    EXPECT_EQ(fs::file_size(esp32Image()), kEsp32Size);
    EXPECT_NE(firstByte(esp32Image()), 'x');
}

TEST_F(SelectFirmwareBoxTest, AFolderThatCannotBeMadeBlocksTheLoad) {
    // A plain file where the folder should be.
    fs::remove_all(root);
    std::ofstream(root) << "in the way";
    CapturingLogger captured;
    setSwitch(true);
    EXPECT_TRUE(
        captured.contains("SelectFirmwareBox: Failed to write preinstalled firmware: ", BaseLogger::ERROR));
    EXPECT_FALSE(sensitive("UploadButton"));
    EXPECT_EQ(entryText("SelectFirmwareSearchEntryStm32"), ".");
    EXPECT_EQ(box->getFilePath(), "");

    // The next move of the switch tries again.
    fs::remove(root);
    setSwitch(false);
    setSwitch(true);
    EXPECT_TRUE(fs::exists(stm32Image()));
    EXPECT_TRUE(sensitive("UploadButton"));
}

TEST_F(SelectFirmwareBoxTest, AnImageRemovedDuringTheRunIsNotWrittenAgain) {
    setSwitch(true);
    fs::remove_all(root);
    setSwitch(false);
    setSwitch(true);
    EXPECT_FALSE(fs::exists(stm32Image()));
    EXPECT_EQ(box->getFilePath(), stm32Image().string());
}

TEST_F(SelectFirmwareBoxTest, EnsureWritesOneImageAndTellsWhenTheResourceIsMissing) {
    EXPECT_EQ(box->ensurePreinstalledFirmwareOnDisk(SelectFirmwareBox::Esp32), esp32Image().string());
    EXPECT_FALSE(fs::exists(stm32Image()));
    CapturingLogger captured;
    // The bundle may be registered more than once; take all of it away.
    GResource* firmware = merid_firmware_get_resource();
    int unregistered = 0;
    while (unregistered < 16 &&
           g_resources_get_info("/meridkestalutility/firmware/merid_firmware.bin",
                                G_RESOURCE_LOOKUP_FLAGS_NONE, nullptr, nullptr, nullptr)) {
        g_resources_unregister(firmware);
        ++unregistered;
    }
    EXPECT_EQ(box->ensurePreinstalledFirmwareOnDisk(SelectFirmwareBox::Stm32), "");
    for (int count = 0; count < unregistered; ++count) {
        g_resources_register(firmware);
    }
    EXPECT_TRUE(captured.contains("SelectFirmwareBox: Can't lookup resource "
                                  "/meridkestalutility/firmware/Tovik_2.13.319.f75a0c3_aes.bin",
                                  BaseLogger::ERROR));
}

TEST_F(SelectFirmwareBoxTest, SearchButtonsRaiseTheirKeysAndLogTheAnswer) {
    keys.answer(SEARCH_FILE_STM32, GlobalHandlerEvents::Failure);
    keys.answer(SEARCH_FILE_ESP32, GlobalHandlerEvents::Success);
    CapturingLogger captured;
    child<Gtk::Button>("SelectFirmwareStm32Button").clicked();
    child<Gtk::Button>("SelectFirmwareEsp32Button").clicked();
    EXPECT_EQ(keys.count(SEARCH_FILE_STM32), 1);
    EXPECT_EQ(keys.count(SEARCH_FILE_ESP32), 1);
    EXPECT_TRUE(captured.contains("OpenFileDialog: Error with Open File for STM32!", BaseLogger::ERROR));
    EXPECT_TRUE(captured.contains("OpenFileDialog: Open File for ESP32 is success!", BaseLogger::INFO));
}
