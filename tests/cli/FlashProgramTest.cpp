// merid-flash run as people and scripts run it, against simulated boards:
// each subcommand, a gang with one failing board, and the bad input that
// must end the run before anything reaches a board; and what a hostile
// file, board or output cannot do.
#include "DeviceSimulator.h"
#include "EspRomBridge.h"
#include "SimDevice.h"
#include "TestSupport.h"
#include "UsbCommunication.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "PtyPair.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <map>
#include <memory>
#include <optional>
#include <sstream>
#include <thread>

using testsupport::Bytes;

namespace {

struct Outcome {
    int exitCode = -1;
    std::string out;
    std::string err;
};

// One simulated board: the payload device at address 2 and the ESP32
// behind the enter frame.
struct Board {
    explicit Board(const EspRomSimulator::Config& config = {}, const std::string& name = "MeridKestal STM32")
        : chip(std::make_shared<EspRomSimulator>(config)) {
        EspRomBridge::install(simulator, chip);
        simulator.addDevice(SimDevice::standard(2, name));
        started = simulator.start();
    }
    ~Board() { simulator.stop(); }
    const std::string& port() const { return simulator.slavePath(); }

    DeviceSimulator simulator;
    std::shared_ptr<EspRomSimulator> chip;
    bool started = false;
};

class FlashProgram : public ::testing::Test {
protected:
    void SetUp() override {
        for (auto& board : boards) {
            board = std::make_unique<Board>();
            ASSERT_TRUE(board->started) << board->simulator.lastError();
        }
        // Machine code, as a real image is: a slice of this test program.
        const std::string self = testsupport::readFile("/proc/self/exe");
        ASSERT_GT(self.size(), 0x12000u);
        image.assign(self.begin() + 0x1000, self.begin() + 0x1000 + 0x11000);
        ASSERT_TRUE(testsupport::writeFile(imagePath, image));
    }

    // merid-flash with `arguments`, both outputs kept.
    Outcome run(const std::string& arguments) {
        const std::string out = dir.path() + "/out.txt", err = dir.path() + "/err.txt";
        const std::string command =
            std::string(MERID_FLASH_PATH) + " " + arguments + " >" + out + " 2>" + err;
        const int status = std::system(command.c_str());
        Outcome result;
        result.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
        result.out = testsupport::readFile(out);
        result.err = testsupport::readFile(err);
        return result;
    }

    // A -p for every board.
    std::string everyPort() const {
        std::string words;
        for (const auto& board : boards) {
            words += " -p " + board->port();
        }
        return words;
    }

    // The line of `text` that begins with `start`, without its end.
    static std::string lineOf(const std::string& text, const std::string& start) {
        const std::size_t at = text.find(start);
        return at == std::string::npos ? std::string() : text.substr(at, text.find('\n', at) - at);
    }

    // The /proc folder of a board's process for `port`, while one runs.
    static std::optional<std::filesystem::path> workerOf(const std::string& port) {
        for (const auto& process : std::filesystem::directory_iterator("/proc")) {
            const std::string words = testsupport::readFile(process.path() / "cmdline");
            if (words.find(std::string("--worker") + '\0') != std::string::npos &&
                words.find('\0' + port + '\0') != std::string::npos) {
                return process.path();
            }
        }
        return std::nullopt;
    }

    static std::vector<nlohmann::json> jsonLines(const std::string& text) {
        std::vector<nlohmann::json> objects;
        std::istringstream lines(text);
        for (std::string line; std::getline(lines, line);) {
            objects.push_back(nlohmann::json::parse(line));
        }
        return objects;
    }

    testsupport::TempDir dir;
    std::unique_ptr<Board> boards[3];
    Bytes image;
    const std::string imagePath = dir.path() + "/app.bin";
};

} // namespace

// The first board's port stands behind a by-id link, its tty below a USB
// adapter in a sysfs tree of the test's; the second has no adapter.
TEST_F(FlashProgram, ListsPortsWithTheirAdaptersAndSearchesTheBoard) {
    namespace fs = std::filesystem;
    const fs::path usb = dir.path() + "/sys/devices/usb1/1-2";
    fs::create_directories(usb / "1-2:1.0/ttyUSB0");
    fs::create_directories(dir.path() + "/sys/class/tty/" + fs::path(boards[0]->port()).filename().string());
    fs::create_directory_symlink(usb / "1-2:1.0/ttyUSB0",
                                 dir.path() + "/sys/class/tty/" +
                                     fs::path(boards[0]->port()).filename().string() + "/device");
    for (const auto& [name, text] : {std::pair{"idVendor", "0403"},
                                     {"idProduct", "6001"},
                                     {"serial", "A50285BI"},
                                     {"product", "FT232R\x1b]0;owned\x07 UART"}}) {
        Bytes line(text, text + std::strlen(text));
        line.push_back('\n');
        ASSERT_TRUE(testsupport::writeFile(usb / name, line));
    }
    const std::string byId = dir.path() + "/usb-FTDI_FT232R_A50285BI-if00-port0";
    fs::create_symlink(boards[0]->port(), byId);
    testsupport::ScopedEnv sysfs("MERID_SYSFS_ROOT", dir.path() + "/sys");
    testsupport::ScopedEnv extra("MERID_EXTRA_PORTS", byId + ":" + boards[1]->port());
    EXPECT_EQ(run("--version").out, "merid-flash " MERID_VERSION "\n");
    Outcome ports = run("ports");
    EXPECT_EQ(ports.exitCode, 0);
    EXPECT_NE(ports.out.find(byId + "  0403:6001  A50285BI  FT232R\\x1b]0;owned\\x07 UART\n"),
              std::string::npos)
        << ports.out;
    EXPECT_NE(ports.out.find(boards[1]->port() + "\n"), std::string::npos) << ports.out;
    const auto listed = nlohmann::json::parse(run("ports --json").out)["ports"];
    const auto adapter =
        std::find_if(listed.begin(), listed.end(), [&](auto& p) { return p["name"] == byId; });
    ASSERT_NE(adapter, listed.end());
    EXPECT_EQ(*adapter, (nlohmann::json{{"name", byId},
                                        {"vendorId", "0403"},
                                        {"productId", "6001"},
                                        {"serialNumber", "A50285BI"},
                                        {"product", "FT232R\x1b]0;owned\x07 UART"}}));
    EXPECT_TRUE(std::any_of(listed.begin(), listed.end(), [&](auto& p) {
        return p == nlohmann::json{{"name", boards[1]->port()}};
    }));

    Outcome search = run("search --json -p " + boards[0]->port());
    ASSERT_EQ(search.exitCode, 0) << search.err;
    const auto found = nlohmann::json::parse(search.out);
    EXPECT_EQ(found["port"], boards[0]->port());
    ASSERT_EQ(found["devices"].size(), 1u);
    EXPECT_EQ(found["devices"][0]["address"], 2);
    EXPECT_EQ(found["devices"][0]["name"], "MeridKestal STM32");
    EXPECT_EQ(found["devices"][0]["fields"][0]["name"], "erase");

    // A board that never answers: the search fails, as a load would.
    boards[1]->simulator.setFaults(DeviceSimulator::Faults{.silent = true});
    Outcome silent = run("search --json -p " + boards[1]->port());
    EXPECT_EQ(silent.exitCode, 1);
    EXPECT_EQ(nlohmann::json::parse(silent.out)["devices"].size(), 0u) << silent.out;
    EXPECT_EQ(silent.err, "merid-flash: " + boards[1]->port() + ": no device answered\n");
}

// Three boards at once; the second refuses a block three times over.
TEST_F(FlashProgram, GangReportsTheFailingBoardAlone) {
    EspRomSimulator::Faults refuse;
    refuse.failDataBlock = 3;
    refuse.failDataCount = 3;
    boards[1]->chip->setFaults(refuse);
    Outcome gang = run("esp32 --json -b 921600" + everyPort() + " " + imagePath);
    EXPECT_EQ(gang.exitCode, 1);
    const auto results = jsonLines(gang.out);
    ASSERT_EQ(results.size(), 3u) << gang.out;
    for (std::size_t i = 0; i < 3; ++i) {
        SCOPED_TRACE(i);
        EXPECT_EQ(results[i]["port"], boards[i]->port());
        EXPECT_EQ(results[i]["target"], "esp32");
        EXPECT_EQ(results[i]["ok"], i != 1);
    }
    EXPECT_EQ(results[0]["result"], "verified");
    EXPECT_EQ(results[0]["bytes"], image.size());
    EXPECT_EQ(results[2]["result"], "verified");
    EXPECT_EQ(results[1]["code"], "write-failed");
    EXPECT_EQ(results[1]["result"], "the ESP32 refused a write; reset the board and load it again "
                                    "(esp_loader_flash_deflate_write failed: 9)");
    EXPECT_EQ(results[0]["code"], "");
    EXPECT_LT(results[1]["bytes"], image.size());
    EXPECT_EQ(boards[2]->chip->flash(0, static_cast<std::uint32_t>(image.size())), image);
    // The table, on the standard error beside the JSON, names the port and why.
    EXPECT_NE(gang.err.find(boards[1]->port() + "  esp32"), std::string::npos) << gang.err;
    EXPECT_NE(
        lineOf(gang.err, boards[1]->port() + "  esp32").find("  write-failed: the ESP32 refused a write"),
        std::string::npos)
        << gang.err;
}

// One data request lost on the way, one answer lost, one answer later than
// the loader waits: each flash still ends with the image in the flash, sent
// compressed and checked by the chip's MD5 unless told otherwise, and the
// blocks the chip took counted once.
TEST_F(FlashProgram, EspFlashOutlivesALostOrLateMessage) {
    struct Case {
        const char* fault;
        const char* arguments;
        const char* result;
        unsigned EspRomSimulator::Faults::*which;
        unsigned copiesSeen; // data requests the chip saw beyond the blocks it took
    };
    using F = EspRomSimulator::Faults;
    const Case cases[] = {
        {"lost request", "esp32", "verified", &F::lostRequest, 0},
        {"lost request", "esp32 --no-compress", "verified", &F::lostRequest, 0},
        {"lost answer", "esp32", "verified", &F::lostAnswer, 1},
        {"lost answer", "esp32 --no-compress", "verified", &F::lostAnswer, 1},
        {"late answer", "esp32", "verified", &F::lateAnswer, 0},
        {"late answer", "esp32 --no-compress", "verified", &F::lateAnswer, 0},
        {"late answer", "esp32 --no-compress --no-verify", "written", &F::lateAnswer, 0},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(std::string(c.fault) + ": " + c.arguments);
        auto board = std::make_unique<Board>();
        ASSERT_TRUE(board->started);
        F faults;
        faults.*c.which = 3;
        board->chip->setFaults(faults);
        Outcome load =
            run(std::string(c.arguments) + " --force -b 921600 -p " + board->port() + " " + imagePath);
        EXPECT_EQ(load.exitCode, 0) << load.out << load.err;
        const std::string row = lineOf(load.out, board->port() + "  esp32");
        EXPECT_EQ(row.substr(row.rfind("  ") + 2), c.result) << load.out;
        EXPECT_EQ(board->chip->flash(0, static_cast<std::uint32_t>(image.size())), image);
        const auto opcodes = board->chip->opcodes();
        const auto data =
            std::count_if(opcodes.begin(), opcodes.end(), [](auto op) { return op == 0x03 || op == 0x11; });
        EXPECT_EQ(static_cast<unsigned>(data), board->chip->counters().dataBlocks + c.copiesSeen);
        const bool compressed = std::string(c.arguments).find("--no-compress") == std::string::npos;
        EXPECT_EQ(std::count(opcodes.begin(), opcodes.end(), 0x11) > 0, compressed);
        EXPECT_EQ(std::count(opcodes.begin(), opcodes.end(), 0x13) > 0, std::string(c.result) == "verified");
    }
}

// An image of three parts, given in any order, lands at their addresses; a
// second load finds them all in the flash and writes nothing, a changed part
// alone is written again, and --force writes them all.
TEST_F(FlashProgram, PartsAreWrittenOnlyWhereTheFlashDiffers) {
    const Bytes boot(image.begin(), image.begin() + 0x7000);
    Bytes table(image.begin() + 0x7000, image.begin() + 0x7C00);
    const std::string bootPath = dir.path() + "/boot.bin", tablePath = dir.path() + "/table.bin";
    ASSERT_TRUE(testsupport::writeFile(bootPath, boot) && testsupport::writeFile(tablePath, table));
    const std::string load = "esp32 --json -b 921600 -p " + boards[0]->port() + " 0x10000 " + imagePath +
                             " 0x1000 " + bootPath + " 32768 " + tablePath;
    EspRomSimulator& chip = *boards[0]->chip;
    // The target's result, then each part's address and result.
    const auto outcome = [&](const std::string& arguments) {
        const Outcome flashed = run(arguments);
        EXPECT_EQ(flashed.exitCode, 0) << flashed.err;
        const auto result = nlohmann::json::parse(flashed.out);
        std::string words = result["result"];
        for (const auto& part : result["parts"]) {
            words += " " + std::to_string(part["address"].get<unsigned>()) + ":" +
                     part["result"].get<std::string>();
        }
        return words;
    };
    EXPECT_EQ(outcome(load), "verified 4096:written 32768:written 65536:written");
    EXPECT_EQ(chip.flash(0x1000, 0x7000), boot);
    EXPECT_EQ(chip.flash(0x8000, 0xC00), table);
    EXPECT_EQ(chip.flash(0x10000, static_cast<std::uint32_t>(image.size())), image);

    const unsigned blocks = chip.counters().dataBlocks;
    EXPECT_EQ(outcome(load), "unchanged 4096:unchanged 32768:unchanged 65536:unchanged");
    EXPECT_EQ(chip.counters().dataBlocks, blocks);

    table[5] ^= 0xFF;
    ASSERT_TRUE(testsupport::writeFile(tablePath, table));
    EXPECT_EQ(outcome(load), "verified 4096:unchanged 32768:written 65536:unchanged");
    EXPECT_EQ(chip.flash(0x8000, 0xC00), table);
    EXPECT_GT(chip.counters().dataBlocks, blocks);
    EXPECT_LE(chip.counters().dataBlocks, blocks + 3); // 3 KiB, compressed

    EXPECT_EQ(outcome(load + " --force"), "verified 4096:written 32768:written 65536:written");
    EXPECT_GT(chip.counters().dataBlocks, blocks + 3 + image.size() / 4096);
}

// A board run loads the STM32, then the ESP32, of every board; a board whose
// STM32 load fails leaves its ESP32 alone, and the others go on.
TEST_F(FlashProgram, BoardRunLoadsBothProcessorsOfEachBoard) {
    DeviceSimulator::Faults unplug;
    unplug.unplugAfterFrames = 40;
    boards[2]->simulator.setFaults(unplug);
    Outcome gang = run("board --json -b 921600" + everyPort() + " --stm32 " + imagePath +
                       " --esp32 0x10000 " + imagePath);
    EXPECT_EQ(gang.exitCode, 1);
    const auto results = jsonLines(gang.out);
    ASSERT_EQ(results.size(), 3u) << gang.out;
    for (std::size_t i = 0; i < 2; ++i) {
        SCOPED_TRACE(i);
        EXPECT_EQ(results[i]["port"], boards[i]->port());
        EXPECT_EQ(results[i]["ok"], true);
        const auto& targets = results[i]["targets"];
        ASSERT_EQ(targets.size(), 2u);
        EXPECT_EQ(targets[0]["result"], "confirmed");
        EXPECT_EQ(targets[1]["result"], "verified");
        EXPECT_EQ(targets[1]["parts"][0]["result"], "written");
        EXPECT_EQ(boards[i]->simulator.finishedImage(2, 0), image);
        EXPECT_EQ(boards[i]->chip->flash(0x10000, static_cast<std::uint32_t>(image.size())), image);
    }
    EXPECT_EQ(results[2]["ok"], false);
    EXPECT_EQ(results[2]["targets"][1]["code"], "not-attempted");
    EXPECT_EQ(boards[2]->chip->counters().frames, 0u);
    const std::string row = lineOf(gang.err, boards[2]->port() + "  esp32");
    EXPECT_NE(row.find("  not-attempted: not loaded"), std::string::npos) << gang.err;
}

// A board pulled out in the middle fails alone; quiet, the run names it in
// one line, and the log file holds both boards' protocol, each line led by
// its port.
TEST_F(FlashProgram, VanishedBoardFailsAloneQuietlyWithTheFullLog) {
    DeviceSimulator::Faults unplug;
    unplug.unplugAfterFrames = 40;
    boards[1]->simulator.setFaults(unplug);
    const std::string log = dir.path() + "/flash.log";
    Outcome quiet = run("stm32 -q -b 921600 --log " + log + " -p " + boards[0]->port() + " -p " +
                        boards[1]->port() + " " + imagePath);
    EXPECT_EQ(quiet.exitCode, 1);
    EXPECT_EQ(quiet.out, "");
    EXPECT_EQ(quiet.err.rfind("merid-flash: " + boards[1]->port() + ": ", 0), 0u) << quiet.err;
    EXPECT_EQ(std::count(quiet.err.begin(), quiet.err.end(), '\n'), 1) << quiet.err;
    EXPECT_EQ(boards[0]->simulator.finishedImage(2, 0), image);
    const std::string lines = testsupport::readFile(log);
    EXPECT_NE(lines.find(boards[0]->port() + " WARNING PayloadHandler: Firmware transfer complete: "),
              std::string::npos);
    EXPECT_NE(lines.find(boards[1]->port() + " INFO PayloadHandler: write file request (device 2, file 0"),
              std::string::npos);
}

// Each mistake gets its one line and exit code 2, and no board hears a byte.
TEST_F(FlashProgram, BadInputEndsTheRunBeforeAnythingIsSent) {
    ASSERT_TRUE(testsupport::writeFile(dir.path() + "/empty.bin", {}));
    ASSERT_TRUE(testsupport::writeFile(dir.path() + "/odd.bin", Bytes(1001, 0x5A)));
    UsbCommunication holder;
    holder.portName = boards[2]->port();
    ASSERT_EQ(holder.connect(UsbCommunication::MethodCom), UsbTypes::Ok);
    const std::string good = boards[0]->port() + " ";
    // Sparse files over each target's limit, a second name of the first
    // board's port, and a FIFO with a reader (so that a write would not hang).
    const std::string huge = dir.path() + "/huge.bin", large = dir.path() + "/large.bin";
    ASSERT_TRUE(testsupport::writeFile(huge, {}) && testsupport::writeFile(large, {}));
    std::filesystem::resize_file(huge, 1ull << 32);
    std::filesystem::resize_file(large, (16u << 20) + 4);
    const std::string link = dir.path() + "/board-link", fifo = dir.path() + "/log.fifo";
    std::filesystem::create_symlink(boards[0]->port(), link);
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
    const int fifoReader = ::open(fifo.c_str(), O_RDONLY | O_NONBLOCK);
    // Files an ESP32 must not get as they are: text of the two formats, and ELF.
    const std::string hex = dir.path() + "/app.hex", srec = dir.path() + "/app.s19",
                      elf = dir.path() + "/app.elf";
    const auto writeText = [](const std::string& path, const std::string& text) {
        return testsupport::writeFile(path, Bytes(text.begin(), text.end()));
    };
    ASSERT_TRUE(writeText(hex, ":10000000E9030220EC0E0840EE000000000000003F\r\n:00000001FF\r\n"));
    ASSERT_TRUE(writeText(srec, "S00600004844521B\nS1130000E9030220EC0E0840EE0000000000000030\n"));
    const std::string self = testsupport::readFile("/proc/self/exe");
    ASSERT_TRUE(testsupport::writeFile(elf, Bytes(self.begin(), self.begin() + 4096)));
    const std::string app = " " + imagePath;
    struct Case {
        std::string arguments;
        std::string line;
    };
    const Case cases[] = {
        {"esp32 -p " + good + dir.path() + "/missing.bin", dir.path() + "/missing.bin: no such file"},
        {"stm32 -p " + good + dir.path(), dir.path() + ": not a regular file"},
        {"stm32 -p " + good + dir.path() + "/empty.bin", dir.path() + "/empty.bin: the file is empty"},
        {"esp32 -p " + good + dir.path() + "/odd.bin",
         "must be a multiple of 4 bytes long; this one has 1001 bytes"},
        {"esp32 -p /dev/merid-none " + imagePath, "Error opening port /dev/merid-none (open err=2"},
        {"search -p /dev/merid-none", "Error opening port /dev/merid-none (open err=2"},
        {"stm32 -p " + boards[2]->port() + " " + imagePath,
         "Port " + boards[2]->port() + " is held by another program; close it there and try again"},
        {"stm32 -p " + good + "-p " + good + imagePath, "port " + boards[0]->port() + " is given twice"},
        {"esp32 --frob -p " + good + imagePath, "The following argument was not expected: --frob"},
        {"esp32 -b 1234 -p " + good + imagePath, "unsupported speed 1234"},
        {"stm32 -p " + good + huge,
         huge + ": the file has 4294967296 bytes; an STM32 image can have at most 4294967295"},
        {"esp32 -p " + good + large,
         large + ": the file has 16777220 bytes; an ESP32 image can have at most 16777216"},
        {"esp32 -p " + good + "-p " + link + " " + imagePath, "port " + link + " is given twice"},
        {"stm32 --log " + imagePath + " -p " + good + imagePath,
         imagePath + ": the log file is the image itself"},
        {"stm32 --log " + fifo + " -p " + good + imagePath, fifo + ": the log file is not a regular file"},
        {"esp32 --report " + imagePath + " -p " + good + imagePath,
         imagePath + ": the report is the image itself"},
        {"board --report " + fifo + " -p " + good + "--stm32" + app + " --esp32" + app,
         fifo + ": the report is not a regular file"},
        {"stm32 --report " + dir.path() + "/none/r.csv -p " + good + imagePath,
         dir.path() + "/none/r.csv: the report cannot be written (No such file or directory)"},
        {"search --report " + dir.path() + "/r.jsonl -p " + good, "--report records loads"},
        {"esp32 -p " + good + "0x1001" + app,
         imagePath + " at 0x1001: the address is not a multiple of the 4 KiB"},
        {"esp32 -p " + good + "0x10000" + app + " 4096" + app,
         imagePath + " at 0x1000 (69632 bytes, to 0x12000) overlaps " + imagePath + " at 0x10000"},
        {"esp32 -p " + good + "0xff0000" + app, "at 0xff0000: the part ends at 0x1001000, past 16 MiB"},
        {"esp32 -p " + good + "0x1000" + app + " 0x20000 " + hex,
         hex + ": the file is Intel HEX text, not a"},
        {"board -p " + good + "--stm32" + app + " --esp32 " + srec,
         srec + ": the file is Motorola S-record text"},
        {"esp32 -p " + good + elf, elf + ": the file is an ELF file, not a binary image"},
        {"esp32 -p " + good + "0x1000" + app + " 0x20000", "pairs; the last, 0x20000, has no pair"},
        {"esp32 -p " + good + "4k" + app, "4k " + imagePath + ": not a flash address"},
        {"board -p " + good + "--esp32" + app, "--stm32 is required"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.arguments);
        Outcome bad = run(c.arguments);
        EXPECT_EQ(bad.exitCode, 2);
        EXPECT_EQ(bad.out, "");
        EXPECT_EQ(std::count(bad.err.begin(), bad.err.end(), '\n'), 1) << bad.err;
        EXPECT_EQ(bad.err.rfind("merid-flash: ", 0), 0u) << bad.err;
        EXPECT_NE(bad.err.find(c.line), std::string::npos) << bad.err;
    }
    for (const auto& board : boards) {
        EXPECT_EQ(board->simulator.journalSize(), 0u);
        EXPECT_EQ(board->simulator.bytesReceived(), 0u);
    }
    EXPECT_EQ(testsupport::readFile(imagePath).size(), image.size()); // not taken for the log
    EXPECT_FALSE(std::filesystem::exists(dir.path() + "/r.jsonl"));
    ::close(fifoReader);
}

namespace {

std::string sha256Of(const std::string& path) {
    std::string text;
    if (std::FILE* pipe = ::popen(("sha256sum " + path).c_str(), "r")) {
        for (int c = std::fgetc(pipe); c != EOF && c != ' '; c = std::fgetc(pipe)) {
            text += static_cast<char>(c);
        }
        ::pclose(pipe);
    }
    return text;
}

} // namespace

// The image is read once, before anything is sent: a file replaced during the
// run reaches no board, and the digest of what every board got is printed.
// An image that ends past the flash the chip reports is refused in those
// words, with nothing written.
TEST_F(FlashProgram, EveryBoardGetsTheImageAsItWasAtTheStart) {
    const std::string digest = sha256Of(imagePath);
    ASSERT_EQ(digest.size(), 64u);
    boards[1]->simulator.silenceNext(1); // its search is answered a second later
    Outcome gang;
    std::thread run_([&] {
        gang = run("stm32 --json -b 921600 -p " + boards[0]->port() + " -p " + boards[1]->port() + " " +
                   imagePath);
    });
    EXPECT_TRUE(testsupport::waitUntil([&] { return boards[0]->simulator.bytesReceived() > 4000; }));
    ASSERT_TRUE(testsupport::writeFile(imagePath, Bytes(image.size() / 2, 0x66)));
    run_.join();
    EXPECT_EQ(gang.exitCode, 0) << gang.err;
    EXPECT_EQ(boards[0]->simulator.finishedImage(2, 0), image);
    EXPECT_EQ(boards[1]->simulator.finishedImage(2, 0), image);
    for (const auto& result : jsonLines(gang.out)) {
        EXPECT_EQ(result.value("sha256", ""), digest);
        EXPECT_EQ(result["result"], "confirmed");
        EXPECT_EQ(result["bytes"], image.size());
    }
    EXPECT_EQ(gang.err.find("\nimage SHA-256 " + digest + "\n"), gang.err.rfind("\n\n") + 1) << gang.err;

    EspRomSimulator::Config small;
    small.flashSize = 256u << 10;
    Board tiny(small);
    ASSERT_TRUE(tiny.started);
    const std::string big = dir.path() + "/big.bin";
    ASSERT_TRUE(testsupport::writeFile(big, Bytes(512u << 10, 0x11)));
    Outcome refused = run("esp32 -q -p " + tiny.port() + " 0x1000 " + imagePath + " 0x30000 " + big);
    EXPECT_EQ(refused.exitCode, 1);
    EXPECT_EQ(refused.err,
              "merid-flash: " + tiny.port() +
                  ": past-flash-end: a part ends past the ESP32's flash; nothing was written; use "
                  "an image for this flash size (part at 0x30000 (524288 bytes) ends past the end "
                  "of the 256 KiB flash)\n");
    EXPECT_EQ(tiny.chip->counters().dataBlocks, 0u); // not even the part that fits
}

// Nobody reading the output holds or ends a load: neither an output closed
// under the program nor a terminal stopped (Ctrl-S) while the boards load.
TEST_F(FlashProgram, NobodyReadingTheOutputHoldsNoLoad) {
    const std::string status = dir.path() + "/status";
    const std::string gang = std::string(MERID_FLASH_PATH) + " stm32 -b 921600 -p " + boards[0]->port() +
                             " -p " + boards[1]->port() + " " + imagePath;
    const std::string closed = "(" + gang + " 2>/dev/null; echo $? >" + status + ") | true";
    ASSERT_EQ(std::system(closed.c_str()), 0);
    EXPECT_EQ(testsupport::readFile(status), "0\n");
    EXPECT_EQ(boards[0]->simulator.finishedImage(2, 0), image);
    EXPECT_EQ(boards[1]->simulator.finishedImage(2, 0), image);

    PtyPair terminal;
    ASSERT_TRUE(terminal.isValid());
    const int slave = ::open(terminal.slavePath().c_str(), O_RDWR | O_NOCTTY);
    ::tcflow(slave, TCOOFF);
    std::atomic<bool> ended{false};
    int exitCode = -1;
    std::thread stopped([&] {
        const int code = std::system((gang + " >" + terminal.slavePath() + " 2>&1").c_str());
        exitCode = WIFEXITED(code) ? WEXITSTATUS(code) : -1;
        ended = true;
    });
    EXPECT_TRUE(testsupport::waitUntil([&] {
        return boards[0]->simulator.counters(2)->fileFinishes == 2 &&
               boards[1]->simulator.counters(2)->fileFinishes == 2;
    }));
    ::tcflow(slave, TCOON);
    testsupport::waitUntil([&] { return terminal.receive(1 << 16, 50).empty() && ended; });
    stopped.join();
    ::close(slave);
    EXPECT_EQ(exitCode, 0);
}

// What a board calls itself reaches the terminal with its control
// characters escaped, one line per device and field, and the JSON stays
// valid UTF-8.
TEST_F(FlashProgram, DeviceTextIsShownEscaped) {
    const std::string title = "Evil\x1b]52;c;SGk=\x07\nforged\xff\xc2\x9b";
    SimDevice device = SimDevice::standard(2, title);
    device.addField("f\x1b[2Jx", 8);
    boards[0]->simulator.removeDevice(2);
    boards[0]->simulator.addDevice(device);
    Outcome shown = run("search -p " + boards[0]->port());
    ASSERT_EQ(shown.exitCode, 0) << shown.err;
    EXPECT_EQ(shown.out.find('\x1b'), std::string::npos) << shown.out;
    EXPECT_NE(shown.out.find("  Evil\\x1b]52;c;SGk=\\x07\\x0aforged\\xff\\xc2\\x9b  "), std::string::npos)
        << shown.out;
    EXPECT_NE(shown.out.find("  f\\x1b[2Jx  type 8\n"), std::string::npos) << shown.out;
    EXPECT_EQ(std::count(shown.out.begin(), shown.out.end(), '\n'), 8) << shown.out; // the device, 7 fields

    Outcome json = run("search --json -p " + boards[0]->port());
    const auto found = nlohmann::json::parse(json.out); // throws on bytes that are no UTF-8
    ASSERT_EQ(found["devices"].size(), 1u);
    EXPECT_EQ(found["devices"][0]["name"], "Evil\x1b]52;c;SGk=\x07\nforged\xef\xbf\xbd\xc2\x9b");
}

// A terminal named as the port gets its settings back, and a board's
// process holds none of its parent's files (the log among them).
TEST_F(FlashProgram, LeavesTheTerminalAndTheFilesAsTheyWere) {
    PtyPair terminal;
    ASSERT_TRUE(terminal.isValid());
    const int slave = ::open(terminal.slavePath().c_str(), O_RDWR | O_NOCTTY);
    termios cooked{};
    ::tcgetattr(slave, &cooked);
    cooked.c_lflag |= ICANON | ECHO | ISIG;
    cooked.c_oflag |= OPOST;
    ::tcsetattr(slave, TCSANOW, &cooked);
    Outcome refused = run("stm32 --log " + dir.path() + " -p " + terminal.slavePath() + " " + imagePath);
    EXPECT_EQ(refused.exitCode, 2);
    termios after{};
    ::tcgetattr(slave, &after);
    ::close(slave);
    EXPECT_EQ(after.c_lflag & (ICANON | ECHO | ISIG), static_cast<tcflag_t>(ICANON | ECHO | ISIG));
    EXPECT_EQ(after.c_oflag & OPOST, static_cast<tcflag_t>(OPOST));

    const std::string log = dir.path() + "/flash.log";
    Outcome load;
    std::thread run_(
        [&] { load = run("stm32 --log " + log + " -p " + boards[0]->port() + " " + imagePath); });
    std::vector<std::string> held;
    EXPECT_TRUE(testsupport::waitUntil([&] {
        const auto worker = workerOf(boards[0]->port());
        std::error_code error;
        for (const auto& fd : std::filesystem::directory_iterator(worker.value_or("/none") / "fd", error)) {
            held.push_back(std::filesystem::read_symlink(fd.path(), error).string());
        }
        return !held.empty();
    }));
    run_.join();
    EXPECT_EQ(load.exitCode, 0) << load.err;
    EXPECT_EQ(std::count(held.begin(), held.end(), log), 0) << testing::PrintToString(held);
}

namespace {

// The records of an RFC 4180 text: fields split at commas outside quotes,
// a doubled quote inside them one quote, each record ended by CR LF.
std::vector<std::vector<std::string>> csvRecords(const std::string& text) {
    std::vector<std::vector<std::string>> records(1, std::vector<std::string>(1));
    bool quoted = false;
    for (std::size_t i = 0; i < text.size(); ++i) {
        const char c = text[i];
        std::string& field = records.back().back();
        if (quoted && c == '"' && text.compare(i, 2, "\"\"") == 0) {
            field += c;
            ++i;
        } else if (c == '"') {
            quoted = !quoted;
        } else if (quoted) {
            field += c;
        } else if (c == ',') {
            records.back().emplace_back();
        } else if (text.compare(i, 2, "\r\n") == 0) {
            records.emplace_back(1);
            ++i;
        } else {
            field += c;
        }
    }
    records.pop_back(); // after the last CR LF
    return records;
}

// "2026-11-26T01:02:03.456Z", and `from` <= `to` in that form.
bool utcOrdered(const std::string& from, const std::string& to) {
    const auto isUtc = [](const std::string& t) {
        return t.size() == 24 && t[4] == '-' && t[10] == 'T' && t[19] == '.' && t.back() == 'Z';
    };
    return isUtc(from) && isUtc(to) && from <= to;
}

std::string hostName() {
    char name[256] = {};
    ::gethostname(name, sizeof(name) - 1);
    return name;
}

} // namespace

// A board run with --report: a JSON line per board after what the file held,
// with the station, the device and its serial number, the chip and its MAC
// as the simulated board gives them, and the targets as --json gives them.
TEST_F(FlashProgram, ReportAppendsAJsonLinePerBoard) {
    const std::string report = dir.path() + "/boards.jsonl";
    ASSERT_TRUE(testsupport::writeFile(report, Bytes{'{', '}', '\n'}));
    DeviceSimulator::Faults unplug;
    unplug.unplugAfterFrames = 40;
    boards[1]->simulator.setFaults(unplug);
    Outcome gang = run("board --json -q -b 921600 --report " + report + " -p " + boards[0]->port() + " -p " +
                       boards[1]->port() + " --stm32 " + imagePath + " --esp32 0x10000 " + imagePath);
    EXPECT_EQ(gang.exitCode, 1);
    const auto summary = jsonLines(gang.out);
    const auto lines = jsonLines(testsupport::readFile(report));
    ASSERT_EQ(lines.size(), 3u);
    ASSERT_EQ(summary.size(), 2u);
    EXPECT_EQ(lines[0], nlohmann::json::object());
    for (std::size_t i = 0; i < 2; ++i) {
        SCOPED_TRACE(i);
        const auto& line = lines[i + 1];
        EXPECT_TRUE(utcOrdered(line["start"], line["end"])) << line;
        EXPECT_EQ(line["host"], hostName());
        EXPECT_EQ(line["version"], MERID_VERSION);
        EXPECT_EQ(line["port"], boards[i]->port());
        EXPECT_EQ(line["adapter"], nullptr); // a pseudo-terminal has none
        EXPECT_EQ(line["device"], nlohmann::json::parse(R"({"name":"MeridKestal STM32","version":"2.7",
                                                            "serial_number":1296760898})"));
        EXPECT_EQ(line["ok"], summary[i]["ok"]);
        EXPECT_EQ(line["targets"], summary[i]["targets"]);
    }
    EXPECT_EQ(lines[1]["chip"], nlohmann::json::parse(R"({"type":"ESP32","mac":"a1:b2:7a:5b:3c:4d"})"));
    EXPECT_EQ(lines[1]["code"], "");
    EXPECT_EQ(lines[1]["result"], "verified");
    EXPECT_EQ(lines[2]["chip"], nullptr); // its ESP32 was never reached
    EXPECT_NE(lines[2]["code"], "");
    EXPECT_EQ(lines[2]["code"], summary[1]["targets"][0]["code"]);
    EXPECT_EQ(lines[2]["result"], summary[1]["targets"][0]["result"]);
}

// Two stations append to one CSV report at once: one header, a row per
// target and part, none torn; the device's own text escaped and quoted, a
// serial number the device refuses to give left empty, a name that would
// be a spreadsheet formula kept as text.
TEST_F(FlashProgram, StationsShareACsvReport) {
    boards[2] = std::make_unique<Board>(EspRomSimulator::Config{}, "=Kestal \"7\", rev\nB");
    ASSERT_TRUE(boards[2]->started);
    DeviceSimulator::Faults noSerial; // its field requests refused
    noSerial.errorStatus = 5;
    noSerial.errorNext = 10;
    noSerial.errorCommand = 4;
    boards[1]->simulator.setFaults(noSerial);
    const std::string report = dir.path() + "/line.csv";
    const std::string digest = sha256Of(imagePath);
    Outcome esp, stm;
    std::thread first([&] {
        esp = run("esp32 -q -b 921600 --report " + report + " -p " + boards[0]->port() + " -p " +
                  boards[1]->port() + " 0x10000 " + imagePath);
    });
    stm = run("stm32 -q -b 921600 --report " + report + " -p " + boards[2]->port() + " " + imagePath);
    first.join();
    EXPECT_EQ(esp.exitCode, 0) << esp.err;
    EXPECT_EQ(stm.exitCode, 0) << stm.err;
    const auto records = csvRecords(testsupport::readFile(report));
    ASSERT_EQ(records.size(), 4u);
    const std::string header = "start,end,host,version,port,usb_vendor_id,usb_product_id,usb_serial_number,"
                               "device_name,device_version,device_serial_number,chip_type,chip_mac,target,"
                               "address,bytes,sha256,part_result,ok,code,result\r\n";
    EXPECT_EQ(testsupport::readFile(report).substr(0, header.size()), header);
    std::map<std::string, std::vector<std::string>> byPort;
    for (std::size_t i = 1; i < records.size(); ++i) {
        ASSERT_EQ(records[i].size(), records[0].size());
        EXPECT_TRUE(utcOrdered(records[i][0], records[i][1]));
        EXPECT_EQ(records[i][2], hostName());
        EXPECT_EQ(records[i][3], MERID_VERSION);
        byPort[records[i][4]] = std::vector<std::string>(records[i].begin() + 5, records[i].end());
    }
    const std::vector<std::string> esp32 =
        csvRecords(",,,MeridKestal STM32,2.7,1296760898,ESP32,a1:b2:7a:5b:3c:4d,esp32,0x10000," +
                   std::to_string(image.size()) + "," + digest + ",written,true,,verified\r\n")
            .front();
    EXPECT_EQ(byPort[boards[0]->port()], esp32);
    std::vector<std::string> unknownSerial = esp32;
    unknownSerial[5].clear();
    EXPECT_EQ(byPort[boards[1]->port()], unknownSerial);
    EXPECT_EQ(byPort[boards[2]->port()],
              (std::vector<std::string>{"", "", "", "'=Kestal \"7\", rev\\x0aB", "2.7", "1296760898", "", "",
                                        "stm32", "", std::to_string(image.size()), digest, "", "true", "",
                                        "confirmed"}));
}

// A port that is not there and one another program holds leave their boards
// out, reported with their codes, while the good board loads; the common
// options may come before the subcommand.
TEST_F(FlashProgram, AbsentAndBusyBoardsStandAsideForTheOthers) {
    UsbCommunication holder;
    holder.portName = boards[2]->port();
    ASSERT_EQ(holder.connect(UsbCommunication::MethodCom), UsbTypes::Ok);
    Outcome gang = run("--json -b 921600 -p " + boards[0]->port() + " -p /dev/merid-none -p " +
                       boards[2]->port() + " stm32 " + imagePath);
    EXPECT_EQ(gang.exitCode, 1) << gang.err;
    const auto results = jsonLines(gang.out);
    ASSERT_EQ(results.size(), 3u) << gang.out;
    const std::pair<const char*, const char*> expected[] = {
        {"", "confirmed"}, {"absent", "the port is not there"}, {"busy", "another program holds the port"}};
    for (std::size_t i = 0; i < 3; ++i) {
        SCOPED_TRACE(i);
        EXPECT_EQ(results[i]["code"], expected[i].first);
        EXPECT_EQ(results[i]["result"].get<std::string>().rfind(expected[i].second, 0), 0u) << results[i];
    }
    EXPECT_EQ(boards[0]->simulator.finishedImage(2, 0), image);
    EXPECT_EQ(boards[2]->simulator.bytesReceived(), 0u);
}

// An interrupt or a termination mid-load ends every worker, whose ports are
// free again at once, and still lists every board: the one done as done,
// the others "interrupted"; the exit code is the signal's.
TEST_F(FlashProgram, AStoppedGangStillReportsEveryBoard) {
    boards[0]->simulator.setPacing(115200);
    boards[1]->simulator.setPacing(115200);
    const auto finishes = [this] {
        return boards[2]->simulator.counters(2).value_or(SimDevice::Counters{}).fileFinishes;
    };
    for (const auto& [signalNumber, exitCode] : {std::pair{SIGINT, 130}, {SIGTERM, 143}}) {
        SCOPED_TRACE(exitCode);
        const std::string out = dir.path() + "/out.txt", err = dir.path() + "/err.txt";
        const std::string command = "exec " + std::string(MERID_FLASH_PATH) + " stm32 --json" + everyPort() +
                                    " " + imagePath + " >" + out + " 2>" + err;
        const char* argv[] = {"/bin/sh", "-c", command.c_str(), nullptr};
        const unsigned before = finishes();
        pid_t pid = -1;
        ASSERT_EQ(::posix_spawn(&pid, "/bin/sh", nullptr, nullptr, const_cast<char**>(argv), environ), 0);
        // The unpaced board's process has ended, its report told; the others are loading.
        EXPECT_TRUE(testsupport::waitUntil([&] {
            return finishes() > before && !workerOf(boards[2]->port()) &&
                   boards[0]->simulator.bytesReceived() > 3000 && boards[1]->simulator.bytesReceived() > 3000;
        }));
        ::kill(pid, signalNumber);
        int status = 0;
        ASSERT_EQ(::waitpid(pid, &status, 0), pid);
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == exitCode) << status;
        const auto results = jsonLines(testsupport::readFile(out));
        ASSERT_EQ(results.size(), 3u);
        for (std::size_t i = 0; i < 3; ++i) {
            EXPECT_EQ(results[i]["port"], boards[i]->port());
            EXPECT_EQ(results[i]["code"], i == 2 ? "" : "interrupted") << results[i];
        }
        const std::string table = testsupport::readFile(err);
        EXPECT_NE(lineOf(table, boards[0]->port() + "  stm32").find("  interrupted: "), std::string::npos)
            << table;
        EXPECT_FALSE(workerOf(boards[0]->port()) || workerOf(boards[1]->port()));
        UsbCommunication again;
        again.portName = boards[0]->port();
        EXPECT_EQ(again.connect(UsbCommunication::MethodCom), UsbTypes::Ok);
    }
}
