# cpack runs this between installing and packing. It compresses manual pages and changelogs, as Debian's policy
# requires, without name and time in the compressed files, and removes the sections of programs and libraries in which the
# compiler names itself.
set(staged ${CPACK_TEMPORARY_DIRECTORY}/*/usr)
file(GLOB documents ${staged}/share/man/man1/*.1 ${staged}/share/doc/*/changelog ${staged}/share/doc/*/changelog.Debian)
foreach(document ${documents})
    execute_process(COMMAND gzip -9n ${document} COMMAND_ERROR_IS_FATAL ANY)
endforeach()
file(GLOB binaries ${staged}/bin/* ${staged}/libexec/*/* ${staged}/lib/*/*.so.*.*)
foreach(binary ${binaries})
    execute_process(COMMAND strip --remove-section=.comment --remove-section=.note ${binary} COMMAND_ERROR_IS_FATAL ANY)
endforeach()
