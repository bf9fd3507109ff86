# Debian has fmt for the build machine alone. Its functions are compiled once from its headers: compiled into every file that
# prints, they were a third of the program's build time.
include(HostHeaders)
if(NOT TARGET fmt::fmt)
    plyconvert_host_headers(fmt_headers fmt)
    add_library(plyconvert_fmt STATIC EXCLUDE_FROM_ALL ${CMAKE_CURRENT_LIST_DIR}/fmt.cpp)
    target_link_libraries(plyconvert_fmt PUBLIC fmt_headers)
    add_library(fmt::fmt ALIAS plyconvert_fmt)
endif()
set(fmt_FOUND TRUE)
