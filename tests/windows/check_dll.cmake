# cmake -DOBJDUMP=... -DDLL=... -DIMPORT_LIBRARY=... -P check_dll.cmake
# Checks the DLL's name, its only export, and that every imported DLL comes with the system.

include(${CMAKE_CURRENT_LIST_DIR}/check_imports.cmake)

if(NOT DLL MATCHES "/plyconvert\\.dll$")
    message(SEND_ERROR "The library is not called plyconvert.dll: ${DLL}")
endif()
if(NOT EXISTS ${IMPORT_LIBRARY})
    message(SEND_ERROR "There is no import library: ${IMPORT_LIBRARY}")
endif()

execute_process(COMMAND ${OBJDUMP} -p ${DLL} OUTPUT_VARIABLE headers COMMAND_ERROR_IS_FATAL ANY)

string(FIND "${headers}" "[Ordinal/Name Pointer] Table" start)
string(SUBSTRING "${headers}" ${start} -1 exports)
string(FIND "${exports}" "\n\n" end) # an empty line ends the table
string(SUBSTRING "${exports}" 0 ${end} exports)
string(REGEX MATCHALL "\\[ *[0-9]+\\] +[^\r\n]+" exports "${exports}")
string(REGEX REPLACE "\\[ *[0-9]+\\] +([0-9a-f]+ +)?" "" exports "${exports}")
message(STATUS "Exports: ${exports}")
if(NOT exports STREQUAL "plyConvert")
    message(SEND_ERROR "Exports other than plyConvert: ${exports}")
endif()

check_imports("${headers}")
