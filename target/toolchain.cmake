# The tool chain that scripts/target made; KELO_SYSROOT is its directory.
set(CMAKE_SYSTEM_NAME Linux)

list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES KELO_SYSROOT)
file(GLOB gcc ${KELO_SYSROOT}/bin/*-gcc)
if(NOT gcc)
  message(FATAL_ERROR "No tool chain in \"${KELO_SYSROOT}\": scripts/target makes it")
endif()
string(REGEX REPLACE "gcc$" "" prefix "${gcc}")
string(REGEX REPLACE ".*/([^-]*).*" "\\1" CMAKE_SYSTEM_PROCESSOR "${gcc}")

set(CMAKE_C_COMPILER ${prefix}gcc)
set(CMAKE_CXX_COMPILER ${prefix}g++)
set(CMAKE_FIND_ROOT_PATH ${KELO_SYSROOT})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
