# The manual: `cmake --build BUILD --target manual` makes BUILD/manual. It takes some seconds, so only TARVO_BUILD_MANUAL=ON
# makes it with everything, and installs it.
if(TARVO_BUILD_MANUAL)
  find_program(TARVO_MKDOCS mkdocs)
  find_program(TARVO_DOXYGEN doxygen)
  mark_as_advanced(TARVO_MKDOCS TARVO_DOXYGEN)
  if(TARVO_MKDOCS AND TARVO_DOXYGEN)
    set(all)
    if(NOT TARVO_BUILD_MANUAL STREQUAL "AUTO")
      set(all ALL)
      install(DIRECTORY ${PROJECT_BINARY_DIR}/manual/ DESTINATION ${CMAKE_INSTALL_DOCDIR}/manual COMPONENT tarvo_manual)
    endif()
    add_custom_target(manual ${all}
      COMMAND ${PROJECT_SOURCE_DIR}/cmake/manual/build.sh ${PROJECT_SOURCE_DIR} ${PROJECT_BINARY_DIR} ${PROJECT_BINARY_DIR}/manual
      COMMENT "Building the manual" VERBATIM)
  elseif(NOT TARVO_BUILD_MANUAL STREQUAL "AUTO")
    message(FATAL_ERROR "The manual needs mkdocs, its theme material, and doxygen.")
  endif()
endif()
