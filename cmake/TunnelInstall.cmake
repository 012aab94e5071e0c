# Install rules: the two shared libraries, every component's headers under include/tunnel/<folder>,
# a CMake package (find_package(Tunnel) -> Tunnel::tunnel, Tunnel::platform) and a pkg-config file.
# tunnelctl and the demo's examples are installed by tools/tunnelctl.
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set_target_properties(tunnelplatform PROPERTIES EXPORT_NAME platform)
# libtunnel.so finds libtunnelplatform.so beside itself, whoever loads it.
set_target_properties(tunnel PROPERTIES EXPORT_NAME tunnel INSTALL_RPATH "$ORIGIN")
install(TARGETS tunnelplatform tunnel EXPORT TunnelTargets
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
        ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
        INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/tunnel)

foreach(c IN LISTS TUNNEL_PLATFORM_COMPONENTS TUNNEL_LIBRARY_COMPONENTS)
  get_property(dir GLOBAL PROPERTY TUNNEL_${c}_DIR)
  get_filename_component(leaf ${dir} NAME)
  install(DIRECTORY ${CMAKE_SOURCE_DIR}/${dir}/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/tunnel/${leaf}
          FILES_MATCHING PATTERN "*.h" PATTERN "*Test*" EXCLUDE)
endforeach()

install(EXPORT TunnelTargets NAMESPACE Tunnel:: DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/Tunnel)
configure_package_config_file(${CMAKE_SOURCE_DIR}/cmake/TunnelConfig.cmake.in
                              ${CMAKE_BINARY_DIR}/TunnelConfig.cmake
                              INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/Tunnel)
write_basic_package_version_file(${CMAKE_BINARY_DIR}/TunnelConfigVersion.cmake
                                 COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_BINARY_DIR}/TunnelConfig.cmake ${CMAKE_BINARY_DIR}/TunnelConfigVersion.cmake
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/Tunnel)

# The .pc file finds its prefix relative to itself, so an installed tree can be moved.
file(RELATIVE_PATH TUNNEL_PC_TO_PREFIX /prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig /prefix)
configure_file(${CMAKE_SOURCE_DIR}/cmake/tunnel.pc.in ${CMAKE_BINARY_DIR}/tunnel.pc @ONLY)
install(FILES ${CMAKE_BINARY_DIR}/tunnel.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

if(TUNNEL_TESTS)
  # Installs into a scratch prefix and builds an outside program against it, twice: through
  # find_package(Tunnel) and through pkg-config.
  add_test(NAME PackageBuildsOutsideProgram
           COMMAND ${CMAKE_SOURCE_DIR}/cmake/package-test/run ${CMAKE_BINARY_DIR} ${CMAKE_COMMAND}
                   "${TUNNEL_SANITIZE_LINK_FLAGS}")
  set_tests_properties(PackageBuildsOutsideProgram PROPERTIES TIMEOUT 600 LABELS package)
endif()
