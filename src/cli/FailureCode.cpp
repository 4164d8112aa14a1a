#include "FailureCode.h"

#include <array>
#include <string_view>
#include <utility>

namespace {

struct Entry {
    std::string_view code;
    std::string_view text; // what went wrong, and what to do
};

constexpr std::array kEntries{
    Entry{"absent", "the port is not there; plug the board's adapter in, or name the right port"},
    Entry{"busy", "another program holds the port; close it there and run the board again"},
    Entry{"no-access", "this user may not open the port; add the user to the port's group"},
    Entry{"link-lost", "the board went away during the load; check its cable and power, then load it again"},
    Entry{"no-device", "no STM32 answered with an erase field; check that the board is powered and runs its "
                       "firmware, and the speed"},
    Entry{"erase-gone", "the STM32 took back its erase field; reset the board and load it again"},
    Entry{"device-refused",
          "the STM32 refused a step of the load; check the image is for this board, then load "
          "it again"},
    Entry{"not-confirmed", "the STM32 did not confirm the firmware; load it again, and check the image if it "
                           "fails again"},
    Entry{"stalled", "the device stopped answering; reset the board and load it again"},
    Entry{"no-chip", "the ESP32's ROM loader did not answer; reset the board and load it again"},
    Entry{"flash-size-unknown", "the ESP32 did not tell its flash size; reset the board and load it again"},
    Entry{"past-flash-end", "a part ends past the ESP32's flash; nothing was written; use an image for this "
                            "flash size"},
    Entry{"no-md5", "the ESP32 gave no MD5 of its flash; reset the board and load it again"},
    Entry{"md5-mismatch",
          "the ESP32's flash does not hold the image; load it again, and replace the board if it "
          "fails again"},
    Entry{"write-failed", "the ESP32 refused a write; reset the board and load it again"},
    Entry{"loader-failed", "the ESP32 load failed; see the log (--log FILE) and load it again"},
    Entry{"not-attempted", "not loaded, as the board's load before it failed; fix that first"},
    Entry{"interrupted", "the run was stopped before this load ended; load the board again"},
    Entry{"worker-failed", "the board's process ended without a result; see the log (--log FILE) and load it "
                           "again"},
};

} // namespace

FailureCode::Failure FailureCode::of(const std::string& code, const std::string& detail) {
    for (const Entry& entry : kEntries) {
        if (entry.code == code) {
            return {code, std::string(entry.text) + (detail.empty() ? "" : " (" + detail + ")")};
        }
    }
    return of("worker-failed", detail.empty() ? code : detail);
}

// The loader's words, matched in this order: the first that a failure's
// words hold names it.
std::string FailureCode::ofEsp32(const std::string& words) {
    constexpr std::array<std::pair<std::string_view, std::string_view>, 7> kMarks{{
        {"esp_loader_connect failed", "no-chip"},
        {"flash size is unknown", "flash-size-unknown"},
        {"ends past the end of the", "past-flash-end"},
        {"flash MD5 mismatch", "md5-mismatch"},
        {"flash MD5 check failed", "no-md5"},
        {"no MD5 from the chip", "no-md5"},
        {"esp_loader_flash", "write-failed"},
    }};
    for (const auto& [mark, code] : kMarks) {
        if (words.find(mark) != std::string::npos) {
            return std::string(code);
        }
    }
    return "loader-failed";
}

std::string FailureCode::ofPort(const std::string& line) {
    if (line.find("is held by another program") != std::string::npos) {
        return "busy";
    }
    if (line.find("No permission for") != std::string::npos) {
        return "no-access";
    }
    return "absent";
}
