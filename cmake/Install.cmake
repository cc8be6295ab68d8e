include(CMakePackageConfigHelpers)

install(TARGETS tarvo_shared tarvo_static EXPORT tarvoTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(DIRECTORY include/tarvo ${PROJECT_BINARY_DIR}/include/tarvo DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(EXPORT tarvoTargets NAMESPACE tarvo:: DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/tarvo)
configure_package_config_file(cmake/tarvoConfig.cmake.in ${PROJECT_BINARY_DIR}/tarvoConfig.cmake
  INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/tarvo)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/tarvoConfigVersion.cmake COMPATIBILITY SameMinorVersion)
install(FILES ${PROJECT_BINARY_DIR}/tarvoConfig.cmake ${PROJECT_BINARY_DIR}/tarvoConfigVersion.cmake
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/tarvo)

# The prefix is found from the file's own place, so the installed tree can be moved.
file(RELATIVE_PATH tarvo_prefix_from_pc ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_PREFIX})
configure_file(cmake/tarvo.pc.in ${PROJECT_BINARY_DIR}/tarvo.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/tarvo.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
if(TARGET tarvo)
  install(TARGETS tarvo RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
  if(TARGET tarvo_unit)
    install(FILES ${PROJECT_BINARY_DIR}/tarvo.service DESTINATION lib/systemd/system)
    install(FILES apps/unit/tarvo.toml DESTINATION ${CMAKE_INSTALL_SYSCONFDIR}/tarvo)
  endif()
endif()
if(TARGET tarvo_documents)
  install(DIRECTORY ${PROJECT_BINARY_DIR}/share/man/ DESTINATION ${CMAKE_INSTALL_MANDIR})
  install(DIRECTORY ${PROJECT_BINARY_DIR}/share/bash-completion ${PROJECT_BINARY_DIR}/share/zsh
    DESTINATION ${CMAKE_INSTALL_DATADIR})
endif()
