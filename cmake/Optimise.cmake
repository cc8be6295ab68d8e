# Optimised builds of the library are small: it shares the memory and the disk of someone else's program. The files that
# every position or row passes are compiled for speed. Debug builds and sanitizers are left as they are.
#
# No link-time optimisation, in neither form: g++ takes bytecode in an archive by itself and then compiles the SDK again
# with the flags of the host's link line, and a shared library's link line carries whatever flags a packager sets. Where
# those lack -fstrict-aliasing (-O0, -O1, -Og, -fno-strict-aliasing), g++ 12 folds constructors that differ in type only
# and drops their stores.
option(TARVO_SMALL "Optimise the library for size" ON)
set(tarvo_small_config 0)
if(TARVO_SMALL AND NOT TARVO_SANITIZE)
  set(tarvo_small_config $<NOT:$<CONFIG:Debug>>)
endif()

# Whatever flags the build is given, the library itself holds no bytecode.
set(tarvo_no_bytecode $<$<CXX_COMPILER_ID:GNU>:-fno-lto>)

# Optimising across functions, g++ gives each file copies of its own of the standard library's templates, which the linker
# cannot fold: 16 KB.
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
  set(tarvo_no_copies $<${tarvo_small_config}:-fno-ipa-sra> $<${tarvo_small_config}:-fno-ipa-cp>)
endif()

function(tarvo_optimise_floor target)
  target_compile_options(${target} PRIVATE ${tarvo_no_bytecode} ${tarvo_no_copies}
    $<${tarvo_small_config}:-Os> $<${tarvo_small_config}:-ffunction-sections> $<${tarvo_small_config}:-fdata-sections>)
endfunction()

function(tarvo_optimise_for_speed)
  set_source_files_properties(${ARGN} PROPERTIES COMPILE_OPTIONS "$<${tarvo_small_config}:-O2>")
endfunction()

include(CheckLinkerFlag)
check_linker_flag(CXX -Wl,-z,pack-relative-relocs TARVO_LINKER_PACKS_RELOCATIONS)

function(tarvo_optimise_shared target)
  target_link_options(${target} PRIVATE ${tarvo_no_bytecode} $<${tarvo_small_config}:-Wl,--gc-sections>
    $<$<AND:${tarvo_small_config},$<BOOL:${TARVO_LINKER_PACKS_RELOCATIONS}>>:-Wl,-z,pack-relative-relocs>
    -Wl,--version-script=${PROJECT_SOURCE_DIR}/cmake/exports.map)
  set_property(TARGET ${target} APPEND PROPERTY LINK_DEPENDS ${PROJECT_SOURCE_DIR}/cmake/exports.map)
endfunction()
