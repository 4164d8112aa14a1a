// The write-out of the preinstalled images when the disk is not as the
// program left it.
#include "SelectFirmwareBox.h"
#include "TestSupport.h"
#include "WidgetTestSupport.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <unistd.h>

using MeridKestalWidgets::SelectFirmwareBox;
using testsupport::CapturingLogger;

namespace {

namespace fs = std::filesystem;

constexpr std::uintmax_t kEsp32Size = 1803184;
constexpr std::uintmax_t kStm32Size = 37312;

// CTest runs these cases as parallel processes, and one of them puts a file
// where the firmware folder goes: each process gets a temporary directory of
// its own before the toolkit reads (and keeps) the variable.
fs::path ownTemporaryDirectory() {
    static const fs::path dir = [] {
        const char* base = std::getenv("TMPDIR");
        fs::path made = fs::path(base != nullptr && *base != '\0' ? base : "/tmp") /
                        ("firmware-box-" + std::to_string(::getpid()));
        fs::create_directories(made);
        ::setenv("TMPDIR", made.c_str(), 1);
        return made;
    }();
    return dir;
}

class SelectFirmwareBoxTest : public widgettest::DerivedWidgetTest<SelectFirmwareBox> {
protected:
    SelectFirmwareBoxTest()
        : DerivedWidgetTest("SelectFirmwareBox"), root(ownTemporaryDirectory() / "MeridKestalUtility") {
        fs::remove_all(root);
    }
    ~SelectFirmwareBoxTest() override { fs::remove_all(root); }

    void setSwitch(bool on) { child<Gtk::Switch>("FirmwareSourceModeSwitch").set_active(on); }
    std::string stm32Entry() { return child<Gtk::Entry>("SelectFirmwareSearchEntryStm32").get_text(); }
    bool uploadSensitive() { return child<Gtk::Widget>("UploadButton").get_sensitive(); }

    fs::path esp32Image() { return root / "firmware" / "merid_firmware.bin"; }
    fs::path stm32Image() { return root / "firmware" / "Tovik_2.13.319.f75a0c3_aes.bin"; }

    static void writeFile(const fs::path& path, std::uintmax_t size) {
        fs::create_directories(path.parent_path());
        std::ofstream(path, std::ios::binary) << std::string(size, 'x');
    }

    static char firstByte(const fs::path& path) { return static_cast<char>(std::ifstream(path).get()); }

    fs::path root;
};

} // namespace

TEST_F(SelectFirmwareBoxTest, OnlyTheSizeDecidesWhetherAnImageIsRewritten) {
    // The right size with other content is kept; one byte more is replaced.
    writeFile(stm32Image(), kStm32Size);
    writeFile(esp32Image(), kEsp32Size + 1);
    setSwitch(true);
    EXPECT_EQ(firstByte(stm32Image()), 'x');
    EXPECT_EQ(fs::file_size(esp32Image()), kEsp32Size);
    EXPECT_NE(firstByte(esp32Image()), 'x');

    // Once written in this run, an image removed behind the program's back is
    // not written again.
    fs::remove_all(root);
    setSwitch(false);
    setSwitch(true);
    EXPECT_FALSE(fs::exists(stm32Image()));
    EXPECT_EQ(widget->getFilePath(), stm32Image().string());
}

TEST_F(SelectFirmwareBoxTest, AFolderThatCannotBeMadeBlocksTheLoadUntilTheNextTry) {
    // A plain file where the folder should be.
    std::ofstream(root) << "in the way";
    CapturingLogger captured;
    setSwitch(true);
    EXPECT_TRUE(
        captured.contains("SelectFirmwareBox: Failed to write preinstalled firmware: ", BaseLogger::ERROR));
    EXPECT_FALSE(uploadSensitive());
    EXPECT_EQ(stm32Entry(), ".");
    EXPECT_EQ(widget->getFilePath(), "");

    fs::remove(root);
    setSwitch(false);
    setSwitch(true);
    EXPECT_TRUE(fs::exists(stm32Image()));
    EXPECT_TRUE(uploadSensitive());
}
