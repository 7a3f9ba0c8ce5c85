# What Debian expects of a package's files: stripped programs, compressed manuals and changes.
file(GLOB_RECURSE installed ${CPACK_TEMPORARY_DIRECTORY}/*)
set(programs ${installed})
list(FILTER programs INCLUDE REGEX /rootfs/usr/\(sbin/kelo-.*|lib/.*\\.so\)$)
find_program(strip strip REQUIRED)
execute_process(COMMAND ${strip} --strip-unneeded ${programs} COMMAND_ERROR_IS_FATAL ANY)
set(texts ${installed})
list(FILTER texts INCLUDE REGEX /share/\(man/.*|doc/kelo-board/changelog\)$)
execute_process(COMMAND gzip -n9 ${texts} COMMAND_ERROR_IS_FATAL ANY)
