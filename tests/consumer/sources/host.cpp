// A host in C++. It includes the header first, so the header must include all that it needs.
#include "plyconvert.h"

#include <cstdio>
#include <stdexcept>

static_assert(PLYCONVERT_DONE == 0 && PLYCONVERT_NOT_A_SPLAT_FILE == -1 && PLYCONVERT_NO_INPUT == -2,
              "the results are part of the contract");

int main() {
    if (plyConvert("no such file.ply", "dataset") != PLYCONVERT_NO_INPUT) {
        return 1;
    }
    if (std::FILE* const file = std::fopen("bad.ply", "wb")) {
        std::fputs("ply\nelement vertex none\nproperty float f_dc_0\nproperty float opacity\n"
                   "property float scale_0\nproperty float rot_0\nend_header\n",
                   file);
        std::fclose(file);
    }
    try {
        plyConvert("bad.ply", "dataset");
    } catch (const std::invalid_argument& error) {
        std::puts(error.what());
        return 0;
    }
    return 1;
}
