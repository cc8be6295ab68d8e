# Optimised builds of the library are small: it shares the memory and the disk of someone else's program. The files that
# every position or row passes are compiled for speed. Debug builds and sanitizers are left as they are.
option(TARVO_SMALL "Optimise the library for size" ON)
set(tarvo_small_config 0)
if(TARVO_SMALL AND NOT TARVO_SANITIZE)
  set(tarvo_small_config $<NOT:$<CONFIG:Debug>>)
endif()
# Objects for both forms of the library: the shared one is optimised as a whole, the static one needs no such linker.
set(tarvo_small_lto "$<AND:${tarvo_small_config},$<CXX_COMPILER_ID:GNU>>")

function(tarvo_optimise_floor target)
  target_compile_options(${target} PRIVATE
    $<${tarvo_small_config}:-Os> $<${tarvo_small_config}:-ffunction-sections> $<${tarvo_small_config}:-fdata-sections>
    $<${tarvo_small_lto}:-flto=auto> $<${tarvo_small_lto}:-ffat-lto-objects>)
endfunction()

function(tarvo_optimise_for_speed)
  set_source_files_properties(${ARGN} PROPERTIES COMPILE_OPTIONS "$<${tarvo_small_config}:-O2>")
endfunction()

include(CheckLinkerFlag)
check_linker_flag(CXX -Wl,-z,pack-relative-relocs TARVO_LINKER_PACKS_RELOCATIONS)

function(tarvo_optimise_shared target)
  target_link_options(${target} PRIVATE
    $<${tarvo_small_config}:-Wl,--gc-sections> $<${tarvo_small_lto}:-flto=auto>
    $<$<AND:${tarvo_small_config},$<BOOL:${TARVO_LINKER_PACKS_RELOCATIONS}>>:-Wl,-z,pack-relative-relocs>
    -Wl,--version-script=${PROJECT_SOURCE_DIR}/cmake/exports.map)
  set_property(TARGET ${target} APPEND PROPERTY LINK_DEPENDS ${PROJECT_SOURCE_DIR}/cmake/exports.map)
endfunction()
