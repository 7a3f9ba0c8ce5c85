# What the package needs: the libraries of kelo-board, and the programs that the board runs of this
# machine. The board's root file system has its own of everything, so CPack's own search for libraries,
# which would look in there too, is of no use.
find_program(shlibdeps dpkg-shlibdeps REQUIRED)
set(folder ${CPACK_PACKAGE_DIRECTORY}/dependencies)
file(WRITE ${folder}/debian/control "Source: kelo-board\n\nPackage: kelo-board\nArchitecture: any\n")
execute_process(COMMAND ${shlibdeps} -O ${CPACK_KELO_BOARD} WORKING_DIRECTORY ${folder}
                OUTPUT_VARIABLE libraries COMMAND_ERROR_IS_FATAL ANY)
string(REGEX REPLACE "shlibs:Depends=(.*)\n" "\\1" libraries "${libraries}")
set(CPACK_DEBIAN_PACKAGE_DEPENDS "${libraries}, iproute2, mount")
