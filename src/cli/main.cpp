#include "FlashProgram.h"

int main(int argc, char** argv) {
    FlashProgram program;
    return program.run(argc, argv);
}
