include(CMakePackageConfigHelpers)

file(GLOB TQCAM_HEADERS CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/include/*.h)
install(TARGETS tqcam EXPORT tqcamTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
install(FILES ${TQCAM_HEADERS} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/tqcam)
install(EXPORT tqcamTargets NAMESPACE tqcam:: DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/tqcam)

configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/tqcamConfig.cmake.in
  ${PROJECT_BINARY_DIR}/tqcamConfig.cmake INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/tqcam)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/tqcamConfigVersion.cmake COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/tqcamConfig.cmake ${PROJECT_BINARY_DIR}/tqcamConfigVersion.cmake
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/tqcam)

configure_file(${PROJECT_SOURCE_DIR}/cmake/tqcam.pc.in ${PROJECT_BINARY_DIR}/tqcam.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/tqcam.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
