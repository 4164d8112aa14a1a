#include "FlashProgram.h"
#include "Platform.h"

#include <string>
#include <vector>

int main(int argc, char** argv) {
    // UTF-8 words on every system, so that any file name works.
    std::vector<std::string> words = Platform::commandLineArguments(argc, argv);
    std::vector<char*> pointers;
    for (auto& word : words) {
        pointers.push_back(word.data());
    }
    pointers.push_back(nullptr);
    FlashProgram program;
    return program.run(static_cast<int>(words.size()), pointers.data());
}
