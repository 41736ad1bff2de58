# Run by cpack once the packages are made (CPACK_POST_BUILD_SCRIPTS). The DEB
# generator of CMake 3.25 cannot write a Multi-Arch field, so the library
# packages get "Multi-Arch: same" added to their control file here, which
# lets the amd64 and i386 builds be installed side by side.
foreach(package IN LISTS CPACK_PACKAGE_FILES)
  get_filename_component(name ${package} NAME)
  if(NOT name MATCHES "^libkelrt7-")
    continue()
  endif()
  set(tree ${CPACK_TOPLEVEL_DIRECTORY}/multiarch/${name})
  file(REMOVE_RECURSE ${tree})
  file(MAKE_DIRECTORY ${CPACK_TOPLEVEL_DIRECTORY}/multiarch)
  execute_process(COMMAND dpkg-deb --raw-extract ${package} ${tree} COMMAND_ERROR_IS_FATAL ANY)
  file(READ ${tree}/DEBIAN/control control)
  if(NOT control MATCHES "\nMulti-Arch:")
    string(REPLACE "\nPackage:" "\nMulti-Arch: same\nPackage:" control "${control}")
    file(WRITE ${tree}/DEBIAN/control "${control}")
  endif()
  execute_process(COMMAND dpkg-deb --root-owner-group --build ${tree} ${package}
    OUTPUT_QUIET COMMAND_ERROR_IS_FATAL ANY)
  file(REMOVE_RECURSE ${tree})
endforeach()
