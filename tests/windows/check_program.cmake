# cmake -DOBJDUMP=... -DPROGRAM=... -P check_program.cmake
# Checks the program's name, and that it needs only what comes with the system.

include(${CMAKE_CURRENT_LIST_DIR}/check_imports.cmake)

if(NOT PROGRAM MATCHES "/plyconvert\\.exe$")
    message(SEND_ERROR "The program is not called plyconvert.exe: ${PROGRAM}")
endif()
execute_process(COMMAND ${OBJDUMP} -p ${PROGRAM} OUTPUT_VARIABLE headers COMMAND_ERROR_IS_FATAL ANY)
check_imports("${headers}")
