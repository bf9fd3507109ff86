# cmake -DPAGE=viewer.html -DSOURCE=page_bytes.cpp -P EmbedPage.cmake
# Writes a C++ source with the page as a gzip file, its length, and the hashes of its inline scripts and styles in the
# form of a content policy. CMake itself compresses, so that a cross build needs no program of the build machine.

cmake_minimum_required(VERSION 3.25)

# set_hash(RESULT TEXT)
# 'sha256-...' with the digest in base64.
function(set_hash result text)
    string(SHA256 digest "${text}")
    set(alphabet ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/)
    string(APPEND digest 00) # 32 bytes and one more are 11 groups of three
    set(base64 "")
    foreach(at RANGE 0 60 6)
        string(SUBSTRING ${digest} ${at} 6 group)
        foreach(shift 18 12 6 0)
            math(EXPR letter "(0x${group} >> ${shift}) & 63")
            string(SUBSTRING ${alphabet} ${letter} 1 letter)
            string(APPEND base64 ${letter})
        endforeach()
    endforeach()
    string(REGEX REPLACE "A$" "=" base64 ${base64})
    set(${result} "'sha256-${base64}'" PARENT_SCOPE)
endfunction()

# set_hashes(SCRIPTS STYLES TEXT)
# The hashes of every element in the order of the page. Text such as <script inside a script starts no element.
function(set_hashes scripts styles text)
    set(script "")
    set(style "")
    while(TRUE)
        string(FIND "${text}" "<script" script_at)
        string(FIND "${text}" "<style" style_at)
        if(script_at EQUAL -1 AND style_at EQUAL -1)
            break()
        endif()
        set(kind script)
        set(at ${script_at})
        if(script_at EQUAL -1 OR (NOT style_at EQUAL -1 AND style_at LESS script_at))
            set(kind style)
            set(at ${style_at})
        endif()
        string(SUBSTRING "${text}" ${at} -1 text)
        string(FIND "${text}" ">" begin)
        math(EXPR begin "${begin} + 1")
        string(SUBSTRING "${text}" ${begin} -1 text)
        string(FIND "${text}" "</${kind}" length)
        if(begin EQUAL 0 OR length EQUAL -1)
            message(FATAL_ERROR "${PAGE}: an element ${kind} has no end")
        endif()
        string(SUBSTRING "${text}" 0 ${length} content)
        set_hash(hash "${content}")
        string(APPEND ${kind} " ${hash}")
        string(SUBSTRING "${text}" ${length} -1 text)
    endwhile()
    set(${scripts} "${script}" PARENT_SCOPE)
    set(${styles} "${style}" PARENT_SCOPE)
endfunction()

file(READ ${PAGE} text)
string(LENGTH "${text}" length)
file(SIZE ${PAGE} size)
if(NOT length EQUAL size)
    message(FATAL_ERROR "${PAGE}: ${size} bytes, of which CMake reads ${length}: no text?")
endif()
set_hashes(scripts styles "${text}")

file(ARCHIVE_CREATE OUTPUT ${SOURCE}.gz PATHS ${PAGE} FORMAT raw COMPRESSION GZip COMPRESSION_LEVEL 9)
file(READ ${SOURCE}.gz bytes HEX)
file(REMOVE ${SOURCE}.gz)
# Bytes 4 to 7 are the time of the compression: without it the same page gives the same bytes.
string(SUBSTRING ${bytes} 0 8 head)
string(SUBSTRING ${bytes} 16 -1 tail)
string(REGEX REPLACE "(..)" "0x\\1," bytes ${head}00000000${tail})
# Lines of sixteen bytes.
string(REPEAT "....." 16 line)
string(REGEX REPLACE "(${line})" "\\1\n    " bytes "${bytes}")

file(WRITE ${SOURCE} "// Written by EmbedPage.cmake.
#include \"program/serve/page_bytes.h\"

namespace Tavrin::SplatProgram {
namespace {

constexpr unsigned char bytes[] = {
    ${bytes}};

} // namespace

const EmbeddedPage embeddedPage = {bytes, sizeof bytes, ${size}, \"${scripts}\", \"${styles}\"};

} // namespace Tavrin::SplatProgram
")
