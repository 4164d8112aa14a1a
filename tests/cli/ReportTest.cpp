// What merid-flash writes for people and scripts: the reports of a board's
// process, the JSON and the table of the end, and the progress lines.
#include "BoardLog.h"
#include "DeviceText.h"
#include "FailureCode.h"
#include "ProgressView.h"
#include "Summary.h"
#include "WorkerReport.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <cstdint>
#include <cstdio>
#include <optional>
#include <string>

namespace {

std::string readBack(std::FILE* file) {
    std::string text;
    std::rewind(file);
    for (int c = std::fgetc(file); c != EOF; c = std::fgetc(file)) {
        text += static_cast<char>(c);
    }
    return text;
}

} // namespace

// Each report survives the pipe, the texts with their blanks and digits.
TEST(WorkerReport, EveryKindComesBackAsSent) {
    auto progress = WorkerReport::parse("progress 42 123456");
    ASSERT_TRUE(progress);
    EXPECT_EQ(progress->kind, BoardEvent::Kind::Progress);
    EXPECT_EQ(progress->percent, 42u);
    EXPECT_EQ(progress->bytes, 123456u);
    for (const std::string reason :
         {"", "esp_loader_flash_write failed: 9", "verified", "md5 \\n\nforged row\r\\"}) {
        for (const auto& [ok, code] : {std::pair{true, ""}, {false, "write-failed"}, {false, ""}}) {
            std::string line = WorkerReport::done(ok, code, reason);
            line.pop_back();
            const auto done = WorkerReport::parse(line);
            ASSERT_TRUE(done) << line;
            EXPECT_EQ(done->kind, BoardEvent::Kind::Done);
            EXPECT_EQ(done->ok, ok);
            EXPECT_EQ(done->code, code);
            EXPECT_EQ(done->text, reason);
        }
    }
    std::string log = WorkerReport::log("WARNING PayloadHandler: Message with problem - error code: 7");
    log.pop_back();
    EXPECT_EQ(WorkerReport::parse(log)->text, "WARNING PayloadHandler: Message with problem - error code: 7");
    std::string part = WorkerReport::part(0x10000, 1u << 20, false);
    part.pop_back();
    const auto parsed = WorkerReport::parse(part);
    ASSERT_TRUE(parsed);
    EXPECT_EQ(parsed->kind, BoardEvent::Kind::Part);
    EXPECT_EQ(parsed->address, 0x10000u);
    EXPECT_EQ(parsed->bytes, 1u << 20);
    EXPECT_FALSE(parsed->ok);
    // What a board tells of its device and chip, a serial number or none.
    for (const auto& serial : {std::optional<std::uint64_t>(UINT64_MAX), std::optional<std::uint64_t>()}) {
        std::string line = WorkerReport::device(" Kestal\n 7 ", "2.7", serial);
        line.pop_back();
        const auto device = WorkerReport::parse(line);
        ASSERT_TRUE(device) << line;
        EXPECT_EQ(device->kind, BoardEvent::Kind::Device);
        EXPECT_EQ(device->text, " Kestal\n 7 ");
        EXPECT_EQ(device->detail, "2.7");
        EXPECT_EQ(device->ok, serial.has_value());
        EXPECT_EQ(device->bytes, serial.value_or(0));
    }
    for (const std::string mac : {"a1:b2:7a:5b:3c:4d", ""}) {
        std::string line = WorkerReport::chip("ESP32-S3", mac);
        line.pop_back();
        const auto chip = WorkerReport::parse(line);
        ASSERT_TRUE(chip) << line;
        EXPECT_EQ(chip->kind, BoardEvent::Kind::Chip);
        EXPECT_EQ(chip->text, "ESP32-S3");
        EXPECT_EQ(chip->detail, mac);
    }
    for (const char* noise : {"", "progress", "part 1 2", "part 4294967296 1 1", "progress x 1", "done",
                              "hello world", "device 2.7 x name"}) {
        EXPECT_FALSE(WorkerReport::parse(noise)) << noise;
    }
}

// The numbers of a report: blanks of any kind between the words, a sign, a
// minus wrapping an unsigned number, leading zeros; a number out of range
// or with no digit makes no report.
TEST(WorkerReport, NumbersReadAsAStreamReadsThem) {
    const auto progress = WorkerReport::parse(" \tprogress\v+007 -1");
    ASSERT_TRUE(progress);
    EXPECT_EQ(progress->percent, 7u);
    EXPECT_EQ(progress->bytes, UINT64_MAX);
    EXPECT_EQ(WorkerReport::parse("progress -4294967295 0x10")->percent, 1u);
    EXPECT_EQ(WorkerReport::parse("progress 1 0x10")->bytes, 0u);
    EXPECT_EQ(WorkerReport::parse("progress 4294967295 18446744073709551615")->bytes, UINT64_MAX);
    const auto done = WorkerReport::parse("done -2147483648 x");
    ASSERT_TRUE(done);
    EXPECT_FALSE(done->ok);
    EXPECT_EQ(done->code, "147483648");
    EXPECT_EQ(done->text, "x");
    EXPECT_EQ(WorkerReport::parse("done +1")->ok, true);
    for (const char* refused :
         {"progress 4294967296 1", "progress 1 18446744073709551616", "progress + 1", "progress 1 -",
          "progress 1x 2", "done 2147483648 x", "done -2147483649", "done x 1", "Progress 1 2"}) {
        EXPECT_FALSE(WorkerReport::parse(refused)) << refused;
    }
}

// Port names and reasons with quotes, backslashes and control characters
// still make valid JSON that reads back as the same text.
TEST(Summary, JsonAndTableCarryEveryBoard) {
    BoardResult windows{"\\\\.\\COM10", "esp32", 65536, 2.0, true, "verified", "", {}, ""};
    BoardResult odd{"/tmp/a \"b\"", "stm32", 1000, 0.5, false, "line\tone\nline two \x01", "", {}, "stalled"};
    for (const BoardResult& result : {windows, odd}) {
        const auto object = nlohmann::json::parse(Summary::json(result));
        EXPECT_EQ(object["port"], result.port);
        EXPECT_EQ(object["result"], result.result);
        EXPECT_EQ(object["ok"], result.ok);
        EXPECT_EQ(object["code"], result.code);
        EXPECT_EQ(object["bytes"], result.bytes);
        EXPECT_NEAR(object["kib_per_s"].get<double>(), result.kibPerSecond(), 0.05);
    }
    EXPECT_EQ(windows.kibPerSecond(), 32.0);
    const std::string table = Summary::table({windows, odd});
    EXPECT_EQ(table.substr(0, table.find('\n')), "PORT        TARGET      BYTES  SECONDS     KIB/S  RESULT");
    EXPECT_NE(table.find("\n\\\\.\\COM10   esp32       65536     2.00      32.0  verified\n"),
              std::string::npos)
        << table;
    EXPECT_NE(table.find("      2.0  stalled: line\\x09one\\x0aline two \\x01\n"), std::string::npos)
        << table;
}

// Each image's digest above the table, each part of an ESP32 image under
// its board's row; a board run is one JSON object holding its targets.
TEST(Summary, PartsStandUnderTheirBoard) {
    BoardResult stm32{"/dev/a", "stm32", 1024, 1.0, true, "confirmed", "aa", {}, ""};
    BoardResult esp32{
        "/dev/a", "esp32",    8192, 2.0,
        true,     "verified", "",   {{0x1000, 4096, "bb", "unchanged"}, {0x10000, 4096, "cc", "written"}},
        ""};
    EXPECT_EQ(Summary::table({stm32, esp32}), "image SHA-256 aa  stm32\n"
                                              "image SHA-256 bb  esp32 0x1000\n"
                                              "image SHA-256 cc  esp32 0x10000\n"
                                              "PORT    TARGET      BYTES  SECONDS     KIB/S  RESULT\n"
                                              "/dev/a  stm32        1024     1.00       1.0  confirmed\n"
                                              "/dev/a  esp32        8192     2.00       4.0  verified\n"
                                              "        0x1000       4096                     unchanged\n"
                                              "        0x10000      4096                     written\n");
    const auto board = nlohmann::json::parse(Summary::boardJson({stm32, esp32}));
    EXPECT_EQ(board["port"], "/dev/a");
    EXPECT_EQ(board["ok"], true);
    ASSERT_EQ(board["targets"].size(), 2u);
    EXPECT_EQ(board["targets"][0]["sha256"], "aa");
    EXPECT_EQ(board["targets"][1]["parts"][1],
              nlohmann::json::parse(R"({"address":65536,"bytes":4096,"result":"written","sha256":"cc"})"));
}

// Without a terminal a board gets one line per tenth reached, however the
// reports fall; on a terminal every draw goes back over the boards' lines.
TEST(ProgressView, TenthsWithoutTerminalRedrawOnOne) {
    std::FILE* plain = std::tmpfile();
    ProgressView lines(plain, false, {"A", "BB"}, 1000);
    for (unsigned percent : {5u, 12u, 19u, 35u, 100u}) {
        lines.update(0, percent, percent * 10);
    }
    lines.update(1, 100, 1000);
    const std::string text = readBack(plain);
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 4) << text;
    EXPECT_EQ(text.rfind("A   12%       120/1000 bytes", 0), 0u) << text;
    EXPECT_NE(text.find("\nBB 100%      1000/1000 bytes"), std::string::npos) << text;
    std::fclose(plain);

    std::FILE* terminal = std::tmpfile();
    ProgressView redrawn(terminal, true, {"A", "BB"}, 1000);
    redrawn.draw();
    redrawn.update(1, 50, 500);
    redrawn.draw();
    redrawn.draw(); // nothing changed: nothing drawn
    const std::string screen = readBack(terminal);
    EXPECT_EQ(std::count(screen.begin(), screen.end(), '\n'), 4) << screen;
    EXPECT_EQ(screen.find("\x1b[2A"), screen.find("\r\x1b[KA    0%", 1) - 4) << screen;
    EXPECT_NE(screen.find("\r\x1b[KBB  50%       500/1000 bytes"), std::string::npos) << screen;
    std::fclose(terminal);
}

// Text from outside: shown with every control character and every byte that
// is no UTF-8 escaped; in JSON always valid UTF-8.
TEST(DeviceText, ControlsAndBadBytesAreEscapedForTerminalAndJson) {
    struct Case {
        std::string text;
        std::string shown;
        std::string json;
    };
    const Case cases[] = {
        {"plain", "plain", "\"plain\""},
        {"\x1b]52;c;SGk=\x07", "\\x1b]52;c;SGk=\\x07", "\"\\u001b]52;c;SGk=\\u0007\""},
        {"a\nb\rc\x7f", "a\\x0ab\\x0dc\\x7f", "\"a\\u000ab\\u000dc\x7f\""},
        {"\xc2\x9b[2J \xc3\xa9", "\\xc2\\x9b[2J \xc3\xa9", "\"\xc2\x9b[2J \xc3\xa9\""},
        {"\xff\xc0\xaf\xed\xa0\x80\xe2\x82", "\\xff\\xc0\\xaf\\xed\\xa0\\x80\\xe2\\x82",
         "\"\\ufffd\\ufffd\\ufffd\\ufffd\\ufffd\\ufffd\\ufffd\\ufffd\""},
        {"\xf0\x9f\x98\x80\xf4\x90\x80\x80", "\xf0\x9f\x98\x80\\xf4\\x90\\x80\\x80",
         "\"\xf0\x9f\x98\x80\\ufffd\\ufffd\\ufffd\\ufffd\""},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.shown);
        EXPECT_EQ(DeviceText::forTerminal(c.text), c.shown);
        EXPECT_EQ(Summary::jsonString(c.text), c.json);
        EXPECT_TRUE(nlohmann::json::accept(c.json));
    }
    BoardResult forged{
        "/dev/ttyUSB0", "esp32", 4, 1.0, false, "flash MD5 mismatch: flash MD5 \x1b[2J\nOK", "", {},
        "md5-mismatch"};
    const std::string table = Summary::table({forged});
    EXPECT_EQ(std::count(table.begin(), table.end(), '\n'), 2) << table;
    EXPECT_NE(table.find("flash MD5 \\x1b[2J\\x0aOK\n"), std::string::npos) << table;
}

// Names of any length make whole lines: every column, nothing cut.
TEST(ProgressView, LongPortNamesMakeWholeLines) {
    const std::string port = "/dev/serial/by-id/" + std::string(400, 'x');
    const std::string line = ProgressView::line(port, 42, 1u << 20, 4u << 20, 2.0);
    EXPECT_EQ(line, port + "  42%   1048576/4194304 bytes    512.0 KiB/s      6 s left");
    BoardResult result{port, "stm32", 4u << 20, 8.0, true, "confirmed", std::string(64, 'a'), {}, ""};
    const std::string table = Summary::table({result});
    EXPECT_EQ(table, "image SHA-256 " + std::string(64, 'a') + "\nPORT" + std::string(port.size() - 4, ' ') +
                         "  TARGET      BYTES  SECONDS     KIB/S  RESULT\n" + port +
                         "  stm32     4194304     8.00     512.0  confirmed\n");
}

// The loaders' words and a port's line each get their code; a code's text
// says what to do, with the loader's words after it.
TEST(FailureCode, OutcomesGetTheirCodes) {
    const std::pair<const char*, const char*> words[] = {
        {"esp_loader_connect failed: 3", "no-chip"},
        {"the chip's flash size is unknown: esp_loader_flash_detect_size failed: 2", "flash-size-unknown"},
        {"flash MD5 mismatch: image MD5 aa, flash MD5 bb", "md5-mismatch"},
        {"no MD5 from the chip for the region at 0x1000 (loader_md5_cmd failed: 2)", "no-md5"},
        {"the loader gave no reason", "loader-failed"},
    };
    for (const auto& [text, code] : words) {
        EXPECT_EQ(FailureCode::ofEsp32(text), code) << text;
    }
    EXPECT_EQ(FailureCode::ofPort("Error opening port /dev/x (open err=13). No permission for /dev/x"),
              "no-access");
    EXPECT_EQ(FailureCode::of("md5-mismatch", "flash MD5 mismatch").text,
              "the ESP32's flash does not hold the image; load it again, and replace the board if it "
              "fails again (flash MD5 mismatch)");
    EXPECT_EQ(FailureCode::of("no-such-code", "").code, "worker-failed");
}

// A flood of warnings keeps the last of them and the count of all, and
// says once that the older ones are gone.
TEST(BoardLog, AFloodKeepsTheCountAndTheLastProblems) {
    std::vector<std::string> lines;
    BoardLog log([&lines](const std::string& line) { lines.push_back(line); });
    const unsigned flood = 10 * BoardLog::kKeptProblems;
    for (unsigned i = 0; i < flood; ++i) {
        log.log("problem " + std::to_string(i), BaseLogger::WARNING, "Tag: ");
    }
    EXPECT_EQ(log.problemCount(), flood);
    EXPECT_EQ(log.lastProblem(), "problem " + std::to_string(flood - 1));
    EXPECT_EQ(log.problemStartingWith("problem 0", 0), "");
    EXPECT_EQ(log.problemStartingWith("problem", flood - 2), "problem " + std::to_string(flood - 2));
    const auto notes = std::count_if(lines.begin(), lines.end(), [](const std::string& line) {
        return line.find("only the last") != std::string::npos;
    });
    EXPECT_EQ(notes, 1);
    EXPECT_EQ(lines.size(), flood + 1);
}
