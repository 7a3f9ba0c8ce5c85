# Flags of a build for the device, where every byte is flash; what each of them saves was measured.
target_compile_options(kelo_device INTERFACE
  -ffunction-sections -fdata-sections
  -fno-asynchronous-unwind-tables -fno-unwind-tables -fno-ident)

# small(TARGET): for the program itself.
function(small target)
  set_target_properties(${target} PROPERTIES POSITION_INDEPENDENT_CODE OFF)
  # The whole program at once; the objects keep their machine code too, for scripts/size.
  target_compile_options(${target} PRIVATE
    -flto -ffat-lto-objects -fno-pie -mno-shared -mplt
    -fno-move-loop-invariants -fmerge-all-constants -fno-jump-tables -fno-caller-saves
    -fno-guess-branch-probability -fno-builtin-snprintf)
  # crtbegin.o and crtend.o run static constructors and destructors and register unwind tables:
  # there are none.
  set(crt "")
  foreach(name crt1.o crti.o crtn.o)
    execute_process(COMMAND ${CMAKE_C_COMPILER} -print-file-name=${name}
      OUTPUT_VARIABLE file OUTPUT_STRIP_TRAILING_WHITESPACE COMMAND_ERROR_IS_FATAL ANY)
    list(APPEND crt ${file})
  endforeach()
  target_link_options(${target} PRIVATE
    -flto -no-pie -nostartfiles ${crt}
    LINKER:--gc-sections,--build-id=none,--no-eh-frame-hdr,--sort-section=alignment
    LINKER:-z,noexecstack,-z,max-page-size=4096)
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
    BYPRODUCTS ${target}.elf)
endfunction()
