/* A host in plain C: it writes a scene of one splat, converts it and looks for the result. */
#include "plyconvert.h"

#include <stdio.h>

static const char* const header = "ply\n"
                                  "format binary_little_endian 1.0\n"
                                  "element vertex 1\n"
                                  "property float x\n"
                                  "property float y\n"
                                  "property float z\n"
                                  "property float nx\n"
                                  "property float ny\n"
                                  "property float nz\n"
                                  "property float f_dc_0\n"
                                  "property float f_dc_1\n"
                                  "property float f_dc_2\n"
                                  "property float opacity\n"
                                  "property float scale_0\n"
                                  "property float scale_1\n"
                                  "property float scale_2\n"
                                  "property float rot_0\n"
                                  "property float rot_1\n"
                                  "property float rot_2\n"
                                  "property float rot_3\n"
                                  "end_header\n";

static int write_scene(const char* path) {
    const float record[17] = {1, 2, 3, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1, 0, 0, 0};
    FILE* const file = fopen(path, "wb");
    if (file == NULL) {
        return 0;
    }
    fputs(header, file);
    fwrite(record, sizeof record, 1, file);
    return fclose(file) == 0;
}

static long size_of(const char* path) {
    long size = -1;
    FILE* const file = fopen(path, "rb");
    if (file != NULL) {
        fseek(file, 0, SEEK_END);
        size = ftell(file);
        fclose(file);
    }
    return size;
}

static int expect(int holds, const char* what) {
    if (!holds) {
        fprintf(stderr, "failed: %s\n", what);
    }
    return holds;
}

int main(void) {
    int good = 1;
    good &= expect(plyConvert("no such file.ply", "dataset") == PLYCONVERT_NO_INPUT, "a missing input");
    good &= expect(write_scene("scene.ply"), "writing the scene");
    good &= expect(plyConvert("scene.ply", "dataset") == PLYCONVERT_DONE, "the conversion");
    good &= expect(size_of("dataset/data.bin") == 32, "32 bytes of data");
    good &= expect(plyConvert("dataset/data.bin", "other") == PLYCONVERT_NOT_A_SPLAT_FILE, "no splat file");
    printf("plyconvert %d.%d.%d\n", PLYCONVERT_VERSION_MAJOR, PLYCONVERT_VERSION_MINOR,
           PLYCONVERT_VERSION_PATCH);
    return good ? 0 : 1;
}
