# tarvo_embed_resource(<target> <file> <constant>): makes the file's bytes known to the target as
# `tarvo::resources::<constant>`, a std::string_view declared in the generated header <constant>.h.
function(tarvo_embed_resource target file constant)
  set(out ${CMAKE_CURRENT_BINARY_DIR}/resources/${constant}.h)
  cmake_path(ABSOLUTE_PATH file)
  add_custom_command(OUTPUT ${out}
    COMMAND ${CMAKE_COMMAND} -DIN=${file} -DOUT=${out} -DNAME=${constant}
            -P ${PROJECT_SOURCE_DIR}/cmake/WriteResource.cmake
    DEPENDS ${file} ${PROJECT_SOURCE_DIR}/cmake/WriteResource.cmake
    VERBATIM)
  target_sources(${target} PRIVATE ${out})
  target_include_directories(${target} PRIVATE ${CMAKE_CURRENT_BINARY_DIR}/resources)
endfunction()
