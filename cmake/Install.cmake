# Installation: header, both libraries with their SONAME links, a pkg-config
# file and a CMake package exporting kelrt7::kelrt7.
include(CMakePackageConfigHelpers)

install(FILES ${PROJECT_SOURCE_DIR}/include/kelr.h ${PROJECT_SOURCE_DIR}/include/kelcore.h
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(TARGETS kelrt7 kelcore EXPORT kelrt7Targets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
