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
    -fno-move-loop-invariants -fmerge-all-constants -fno-jump-tables -fno-caller-saves)
  # crtbegin.o and crtend.o run static constructors and destructors and register unwind tables:
  # there are none.
  set(crt "")
  foreach(name crt1.o crti.o crtn.o)
    execute_process(COMMAND ${CMAKE_C_COMPILER} -print-file-name=${name}
      OUTPUT_VARIABLE file OUTPUT_STRIP_TRAILING_WHITESPACE COMMAND_ERROR_IS_FATAL ANY)
    list(APPEND crt ${file})
  endforeach()
  target_link_options(${target} PRIVATE
    -flto -no-pie -nostartfiles ${crt} -s
    LINKER:--gc-sections,--build-id=none,--no-eh-frame-hdr,--sort-section=alignment
    LINKER:-z,noexecstack,-z,max-page-size=4096)
  add_custom_command(TARGET ${target} POST_BUILD
    COMMAND ${CMAKE_STRIP} -R .comment -R .gnu.attributes -R .mdebug.abi32 $<TARGET_FILE:${target}>)
endfunction()
