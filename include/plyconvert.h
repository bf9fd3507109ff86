/* plyconvert.h - turn a Gaussian-splat PLY file into a quantised dataset grouped by ground cell.
 *
 * The only public header. It compiles as C (C99) and as C++.
 */
#ifndef PLYCONVERT_H
#define PLYCONVERT_H

#include <stdint.h>

#define PLYCONVERT_VERSION_MAJOR 1
#define PLYCONVERT_VERSION_MINOR 0
#define PLYCONVERT_VERSION_PATCH 0

#ifdef __cplusplus
extern "C" {
#endif

#if defined(PLYCONVERT_BUILDING) && !defined(_WIN32)
#define PLYCONVERT_API __attribute__((visibility("default")))
#else
#define PLYCONVERT_API
#endif

/* Results of plyConvert. No other value is returned. */
#define PLYCONVERT_DONE 0                /* the dataset is complete */
#define PLYCONVERT_NOT_A_SPLAT_FILE (-1) /* the header check refused the input; nothing was touched */
#define PLYCONVERT_NO_INPUT (-2)         /* the input path does not exist; nothing was touched */

/* Convert one scene. The call does all of its work before it returns, on the caller's thread and on worker
 * threads of its own, which have ended when it returns.
 *
 * inputPath     the PLY file: binary little-endian, one vertex element whose record is exactly 62 four-byte
 *               floats (x y z, nx ny nz, f_dc_0..2, f_rest_0..44, opacity, scale_0..2, rot_0..3), or 17
 *               without the f_rest properties. Zero-terminated, not null.
 * outputFolder  the folder to write, without a separator at its end. Zero-terminated, not null.
 *
 * Both paths are UTF-8 on Linux. On Windows they are in the code page of the narrow file functions: UTF-8
 * when the runtime's locale code page is 65001, else the ANSI code page, or the OEM code page after
 * SetFileApisToOEM. The strings are copied; the caller keeps them.
 *
 * What it deletes: when outputFolder exists, it and EVERYTHING under it is removed before the first splat is
 * converted. A file that stands in its place is removed too. An input inside it is lost.
 *
 * What it writes: converted_from_ply.ytr, data.bin, index.bin, log.txt, and shcoef.bin when the input
 * declares f_rest_0. Two empty lines go to standard output for every ground cell.
 *
 * What it does not check: whether the vertex layout is one of the two above, whether the file holds as many
 * records as its header says (missing ones are read as zeros), whether splats lie inside the bounds stated in
 * the header (those outside the grid are left out), and whether writing the output succeeded.
 *
 * Positions that are not finite: a scene of up to 1,000,000 splats keeps them. In a larger one, a coordinate
 * that is NaN or infinite counts as the grid's first column or row. NaN moves no bound of the scene. An
 * infinity does when the bounds are scanned for: the grid then has no cells along that axis, and no splat is
 * written.
 *
 * The vertex count is taken at its word. A negative one is a scene without splats. One near 2^63 queues its
 * blocks for as long as that takes, whatever the file holds.
 *
 * What it throws (C++ exceptions; a host in C must not let it come to that):
 *   std::filesystem::filesystem_error  "exists", "file_size", "remove_all" or "create_directories" failed
 *   std::invalid_argument, std::out_of_range   a number in the header is none, or does not fit
 *   std::bad_alloc     out of memory, a line of the header that does not fit among the causes
 *   std::system_error  a thread could not be started
 * What comes from the header, of whichever kind, leave an existing output folder untouched.
 *
 * What ends the whole process:
 *   exit status -1   the input vanished after the check; an output file cannot be opened; the scene is empty
 *                    (one line on standard output says which)
 *   exit status 123  a block of impossible length
 *   abort            a worker thread ran out of memory
 *
 * Calls must not overlap: the run log and the ground grid are shared by the whole process. One call after the
 * other is fine, from any thread.
 *
 * Memory: about 288 bytes a splat and one block of 2,000,000 input records (496 MB, or 136 MB without
 * f_rest).
 */
PLYCONVERT_API int32_t plyConvert(const char* inputPath, const char* outputFolder);

#ifdef __cplusplus
}
#endif

#endif
