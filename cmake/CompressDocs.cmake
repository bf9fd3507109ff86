# Run by cpack between installing and packing: manual pages and changelogs are compressed, as Debian's policy asks, without
# a name and a time in the compressed file.
file(GLOB documents ${CPACK_TEMPORARY_DIRECTORY}/*/usr/share/man/man1/*.1
    ${CPACK_TEMPORARY_DIRECTORY}/*/usr/share/doc/*/changelog ${CPACK_TEMPORARY_DIRECTORY}/*/usr/share/doc/*/changelog.Debian)
foreach(document ${documents})
    execute_process(COMMAND gzip -9n ${document} COMMAND_ERROR_IS_FATAL ANY)
endforeach()
