# Installation: the headers, both libraries with their SONAME links, a
# pkg-config file and a CMake package exporting kelrt7::kelrt7. Three install
# components, which are also the Debian packages (cmake/Package.cmake):
# runtime (the shared objects), dev (everything a program is built with) and
# render (kelr-render and its man page, installed from apps/render).
include(CMakePackageConfigHelpers)

set(KEL_PACKAGE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/kelrt7)

install(FILES ${PROJECT_SOURCE_DIR}/include/kelr.h ${PROJECT_SOURCE_DIR}/include/kelcore.h
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT dev)
# kelrt7 names kelcore as needed, so the two always travel together; the
# installed kelrt7 looks for it beside itself, so a program linked against a
# prefix outside the loader's paths needs no path of its own for kelcore.
set_target_properties(kelrt7 PROPERTIES INSTALL_RPATH "$ORIGIN")
install(TARGETS kelrt7 kelcore EXPORT kelrt7Targets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT dev
  INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})

install(EXPORT kelrt7Targets NAMESPACE kelrt7:: DESTINATION ${KEL_PACKAGE_DIR} COMPONENT dev)
configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/kelrt7Config.cmake.in
  ${PROJECT_BINARY_DIR}/kelrt7Config.cmake
  INSTALL_DESTINATION ${KEL_PACKAGE_DIR})
# find_package(kelrt7 5) and (kelrt7 5.2) both accept this 5.2; a request for
# a later 5.x or another major version does not. The version file also refuses
# a package built for the other pointer size, so a 64-bit project never picks
# up the i386 build that may sit in the same prefix.
write_basic_package_version_file(${PROJECT_BINARY_DIR}/kelrt7ConfigVersion.cmake
  VERSION ${PROJECT_VERSION} COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/kelrt7Config.cmake
  ${PROJECT_BINARY_DIR}/kelrt7ConfigVersion.cmake
  DESTINATION ${KEL_PACKAGE_DIR} COMPONENT dev)

# The .pc file finds the prefix from its own location, so an installed tree
# can be moved, and `cmake --install --prefix` needs no reconfiguration.
file(RELATIVE_PATH KEL_PC_PREFIX_FROM_PCDIR
  ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_PREFIX})
string(REGEX REPLACE "/$" "" KEL_PC_PREFIX_FROM_PCDIR "${KEL_PC_PREFIX_FROM_PCDIR}")
configure_file(${CMAKE_CURRENT_LIST_DIR}/kelrt7.pc.in ${PROJECT_BINARY_DIR}/kelrt7.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/kelrt7.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig
  COMPONENT dev)
