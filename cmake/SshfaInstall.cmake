set(SSHFA_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/sshfileaccess)
set(SSHFA_HEADER_DIR ${CMAKE_INSTALL_INCLUDEDIR}/sshfileaccess)

install(TARGETS sshfileaccess EXPORT sshfileaccessTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})

# Every public header below include/sshfileaccess/, the one root consumers
# include from: the library's headers, platform/ and export.hpp. Folders named
# "internal" hold implementation headers and are not installed.
install(DIRECTORY ${PROJECT_SOURCE_DIR}/sshfileaccess/ ${PROJECT_SOURCE_DIR}/platform DESTINATION ${SSHFA_HEADER_DIR}
  FILES_MATCHING PATTERN "*.hpp" PATTERN "internal" EXCLUDE)
install(FILES ${PROJECT_BINARY_DIR}/include/sshfileaccess/export.hpp DESTINATION ${SSHFA_HEADER_DIR})

install(EXPORT sshfileaccessTargets NAMESPACE nimbal:: DESTINATION ${SSHFA_CMAKE_DIR})
configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/sshfileaccessConfig.cmake.in
  ${PROJECT_BINARY_DIR}/sshfileaccessConfig.cmake INSTALL_DESTINATION ${SSHFA_CMAKE_DIR})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/sshfileaccessConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/sshfileaccessConfig.cmake
  ${PROJECT_BINARY_DIR}/sshfileaccessConfigVersion.cmake DESTINATION ${SSHFA_CMAKE_DIR})

# Relative to the .pc file, so the package can be installed under any prefix.
file(RELATIVE_PATH SSHFA_PC_TO_PREFIX /prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig /prefix)
configure_file(${PROJECT_SOURCE_DIR}/cmake/sshfileaccess.pc.in ${PROJECT_BINARY_DIR}/sshfileaccess.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/sshfileaccess.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
