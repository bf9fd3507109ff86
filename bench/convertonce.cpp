// convertonce INPUT OUTPUT: the smallest host. It makes one conversion in a process of its own, to be
// measured.
#include "plyconvert.h"

#include <cstdio>
#include <exception>

int main(int argc, char** argv) {
    if (argc != 3) {
        std::fputs("usage: convertonce INPUT OUTPUT\n", stderr);
        return 1;
    }
    try {
        const int result = plyConvert(argv[1], argv[2]);
        if (result != PLYCONVERT_DONE) {
            std::fprintf(stderr, "convertonce: plyConvert returned %d\n", result);
            return 1;
        }
    } catch (const std::exception& error) {
        std::fprintf(stderr, "convertonce: %s\n", error.what());
        return 1;
    }
    return 0;
}
