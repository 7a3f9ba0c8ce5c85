# Flags of a build for the device, where every byte is flash; what each of them saves was measured.
# Another compiler gets those that it knows.
include(CheckCXXCompilerFlag)
include(CheckCXXSourceCompiles)
option(KELO_HARDENED "Harden the program where that takes flash, too: position independence, full RELRO, \
stack protector where the C library has it" OFF)

# known(FLAG...): sets flags to those that the compiler takes without a warning.
macro(known)
  set(CMAKE_REQUIRED_FLAGS -Werror)
  set(flags "")
  foreach(flag ${ARGN})
    string(MAKE_C_IDENTIFIER "KELO_HAS${flag}" has)
    check_cxx_compiler_flag(${flag} ${has})
    if(${has})
      list(APPEND flags ${flag})
    endif()
  endforeach()
  unset(CMAKE_REQUIRED_FLAGS)
endmacro()

target_compile_options(kelo_device INTERFACE
  -ffunction-sections -fdata-sections
  -fno-asynchronous-unwind-tables -fno-unwind-tables -fno-ident)

# small(TARGET): for the program itself.
function(small target)
  set_target_properties(${target} PROPERTIES POSITION_INDEPENDENT_CODE OFF)
  known(-fno-move-loop-invariants -fno-tree-loop-im -fmerge-all-constants -fno-jump-tables
    -fno-caller-saves -fno-guess-branch-probability -fno-builtin-snprintf -mtune=24kc)
  target_compile_options(${target} PRIVATE ${flags})
  target_compile_definitions(${target} PRIVATE $<$<NOT:$<CONFIG:Debug>>:_FORTIFY_SOURCE=2>)
  target_link_options(${target} PRIVATE
    LINKER:--gc-sections,--build-id=none,--no-eh-frame-hdr,--sort-section=alignment
    LINKER:-z,noexecstack,-z,relro)
  if(KELO_HARDENED)
    set(start Scrt1.o)
    target_compile_options(${target} PRIVATE -fpie)
    target_link_options(${target} PRIVATE -pie LINKER:-z,now)
    # A compiler may know it though its C library lacks what it calls.
    set(CMAKE_REQUIRED_FLAGS -fstack-protector-all)
    check_cxx_source_compiles("int main() {}" KELO_HAS_STACK_PROTECTOR)
    unset(CMAKE_REQUIRED_FLAGS)
    if(KELO_HAS_STACK_PROTECTOR)
      target_compile_options(${target} PRIVATE -fstack-protector-strong)
    endif()
  else()
    set(start crt1.o)
    known(-mno-shared -mplt)
    target_compile_options(${target} PRIVATE -fno-pie ${flags})
    target_link_options(${target} PRIVATE -no-pie)
  endif()
  if(CMAKE_SYSTEM_PROCESSOR MATCHES "mips|^arm$") # others may have kernels with larger pages
    target_link_options(${target} PRIVATE LINKER:-z,max-page-size=4096)
  endif()
  if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    # The whole program at once; the objects keep their machine code too, for scripts/size.
    target_compile_options(${target} PRIVATE -flto -ffat-lto-objects)
    target_link_options(${target} PRIVATE -flto -nostartfiles)
    # crtbegin.o and crtend.o run static constructors and destructors and register unwind tables:
    # there are none.
    separate_arguments(c_flags UNIX_COMMAND "${CMAKE_C_FLAGS}")
    if(CMAKE_SYSROOT)
      list(APPEND c_flags --sysroot=${CMAKE_SYSROOT})
    endif()
    foreach(name ${start} crti.o crtn.o)
      execute_process(COMMAND ${CMAKE_C_COMPILER} ${c_flags} -print-file-name=${name}
        OUTPUT_VARIABLE file OUTPUT_STRIP_TRAILING_WHITESPACE)
      target_link_options(${target} PRIVATE ${file})
    endforeach()
  endif()
  # The loader reads no section headers, which are about 1 KB; binutils cannot leave them out.
  find_program(LLVM_STRIP NAMES llvm-strip llvm-strip-14)
  if(LLVM_STRIP)
    set(strip ${LLVM_STRIP} --strip-sections)
  else()
    message(STATUS "No llvm-strip: the program keeps its section headers")
    set(strip ${CMAKE_STRIP} -R .comment -R .gnu.attributes -R .mdebug.abi32)
  endif()
  # TARGET.elf keeps them, and the symbols that a core dump or a trace needs.
  add_custom_command(TARGET ${target} POST_BUILD
    COMMAND ${CMAKE_COMMAND} -E copy $<TARGET_FILE:${target}> $<TARGET_FILE:${target}>.elf
    COMMAND ${strip} $<TARGET_FILE:${target}>
    BYPRODUCTS ${target}.elf VERBATIM)
endfunction()
