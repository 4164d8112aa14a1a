#pragma once

#include <string>

// merid-flash's own account of a failure: a stable code, one short
// lower-case word that scripts may test, and a line that says what went
// wrong and what the user can do. The loaders' own words, which the log
// keeps as they are, follow in the line as its detail.
//
// The codes: absent, busy, no-access (the port); link-lost, no-device,
// erase-gone, device-refused, not-confirmed, stalled (the STM32 load);
// no-chip, flash-size-unknown, past-flash-end, no-md5, md5-mismatch,
// write-failed, loader-failed (the ESP32 flash); not-attempted,
// interrupted, worker-failed (the run).
class FailureCode {
public:
    struct Failure {
        std::string code;
        std::string text;
    };

    // The failure of code `code`, with the loaders' words `detail` (may be
    // empty) in its text.
    static Failure of(const std::string& code, const std::string& detail);
    // The code of what the ESP32 loader reported in `words`.
    static std::string ofEsp32(const std::string& words);
    // The code of a port that did not open, from the line of its check.
    static std::string ofPort(const std::string& line);
};
