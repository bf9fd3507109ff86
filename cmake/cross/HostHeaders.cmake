# Header-only libraries of the build machine for a cross build. /usr/include as a whole cannot be on the include path
# of the cross compiler, which would then take the build machine's C library for its own.

# plyconvert_host_headers(TARGET FOLDER)
# Makes TARGET, which has only /usr/include/FOLDER on its include path.
function(plyconvert_host_headers target folder)
    if(TARGET ${target})
        return()
    endif()
    set(headers ${CMAKE_BINARY_DIR}/hostheaders)
    file(MAKE_DIRECTORY ${headers})
    file(CREATE_LINK /usr/include/${folder} ${headers}/${folder} SYMBOLIC)
    add_library(${target} INTERFACE IMPORTED GLOBAL)
    set_target_properties(${target} PROPERTIES INTERFACE_INCLUDE_DIRECTORIES ${headers})
endfunction()
