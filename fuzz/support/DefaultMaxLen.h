#pragma once

#include <cstddef>
#include <string>
#include <vector>

// For LLVMFuzzerInitialize: puts -max_len=LENGTH in front of the command
// line's own flags, so that a -max_len given there still wins. libFuzzer
// reads the flags after its initialiser has run.
inline void setDefaultMaxLen(int* argc, char*** argv, std::size_t length) {
    static std::string flag;
    static std::vector<char*> args;
    flag = "-max_len=" + std::to_string(length);
    args.assign(*argv, *argv + *argc);
    args.insert(args.begin() + 1, flag.data());
    args.push_back(nullptr);
    *argv = args.data();
    *argc = static_cast<int>(args.size()) - 1;
}
