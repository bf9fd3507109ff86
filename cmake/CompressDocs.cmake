# cpack runs this between installing and packing. It compresses manual pages and changelogs, as Debian's policy
# requires, without name and time in the compressed files.
file(GLOB documents ${CPACK_TEMPORARY_DIRECTORY}/*/usr/share/man/man1/*.1
    ${CPACK_TEMPORARY_DIRECTORY}/*/usr/share/doc/*/changelog ${CPACK_TEMPORARY_DIRECTORY}/*/usr/share/doc/*/changelog.Debian)
foreach(document ${documents})
    execute_process(COMMAND gzip -9n ${document} COMMAND_ERROR_IS_FATAL ANY)
endforeach()
