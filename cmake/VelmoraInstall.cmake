include(CMakePackageConfigHelpers)

install(DIRECTORY include/velmora DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(TARGETS velmora EXPORT VelmoraTargets
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
        ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
        RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR}
        INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(EXPORT VelmoraTargets NAMESPACE Velmora:: DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/Velmora)

configure_package_config_file(cmake/VelmoraConfig.cmake.in
  ${CMAKE_CURRENT_BINARY_DIR}/VelmoraConfig.cmake
  INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/Velmora)
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/VelmoraConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/VelmoraConfig.cmake
              ${CMAKE_CURRENT_BINARY_DIR}/VelmoraConfigVersion.cmake
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/Velmora)

configure_file(cmake/velmora.pc.in ${CMAKE_CURRENT_BINARY_DIR}/velmora.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/velmora.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
