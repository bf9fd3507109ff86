# check_imports(HEADERS OWN) Checks in the output of objdump -p that every imported DLL except OWN comes with the
# system.
function(check_imports headers own)
    string(REGEX MATCHALL "DLL Name: [^\r\n]+" imports "${headers}")
    list(TRANSFORM imports REPLACE "DLL Name: " "")
    list(TRANSFORM imports TOLOWER)
    message(STATUS "Imports: ${imports}")
    if(NOT imports)
        message(SEND_ERROR "No imports were found")
    endif()
    foreach(import ${imports})
        if(NOT import MATCHES "^(kernel32|msvcrt|advapi32|user32|shell32|ws2_32|mswsock)\\.dll$|^api-ms-win-crt-.*\\.dll$"
           AND NOT import STREQUAL own)
            message(SEND_ERROR "Imports a DLL that does not come with the system: ${import}")
        endif()
    endforeach()
endfunction()
