# Cross-compiles for Windows on x86-64 with Debian's g++-mingw-w64-x86-64-posix, and runs what was built under wine.

set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR x86_64)

# The variant with POSIX threads: the one whose C++ library has std::thread and std::mutex.
set(CMAKE_C_COMPILER x86_64-w64-mingw32-gcc-posix)
set(CMAKE_CXX_COMPILER x86_64-w64-mingw32-g++-posix)
set(CMAKE_RC_COMPILER x86_64-w64-mingw32-windres)

# Headers, libraries and packages come only from the cross compiler's folder, programs from the build machine.
set(CMAKE_FIND_ROOT_PATH /usr/x86_64-w64-mingw32)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# Win64's stack is aligned to 16 bytes, and the compiler stores 32-byte vectors there with aligned moves.
set(CMAKE_C_FLAGS_INIT -Wa,-muse-unaligned-vector-move)
set(CMAKE_CXX_FLAGS_INIT -Wa,-muse-unaligned-vector-move)

# The C++ library, libgcc and winpthread are linked statically, so that only DLLs of the system are needed. The time of the link
# is left out, so that the same sources give the same bytes.
set(CMAKE_EXE_LINKER_FLAGS_INIT "-static -Wl,--no-insert-timestamp")
set(CMAKE_SHARED_LINKER_FLAGS_INIT "-static -Wl,--no-insert-timestamp")

set(CMAKE_CROSSCOMPILING_EMULATOR ${CMAKE_CURRENT_LIST_DIR}/../scripts/wine.sh ${CMAKE_BINARY_DIR}/wine)

# zlib, too.
set(ZLIB_USE_STATIC_LIBS ON)
