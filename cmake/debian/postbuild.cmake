# Run by cpack once the packages are made (CPACK_POST_BUILD_SCRIPTS), to do
# for the library packages what the DEB generator of CMake 3.25 cannot: add
# "Multi-Arch: same" to the control file, which lets the amd64 and i386
# builds be installed side by side; leave the loader's cache to the ldconfig
# trigger (debian/triggers) instead of maintainer scripts that call ldconfig
# themselves; and give the shared objects a symbols file, which lets the
# dependencies of programs follow the symbols they use.
foreach(package IN LISTS CPACK_PACKAGE_FILES)
  get_filename_component(name ${package} NAME)
  if(NOT name MATCHES "^libkelrt7-")
    continue()
  endif()
  set(tree ${CPACK_TOPLEVEL_DIRECTORY}/unpacked/${name})
  file(REMOVE_RECURSE ${tree})
  file(MAKE_DIRECTORY ${CPACK_TOPLEVEL_DIRECTORY}/unpacked)
  execute_process(COMMAND dpkg-deb --raw-extract ${package} ${tree} COMMAND_ERROR_IS_FATAL ANY)
  file(READ ${tree}/DEBIAN/control control)
  if(NOT control MATCHES "\nMulti-Arch:")
    string(REPLACE "\nPackage:" "\nMulti-Arch: same\nPackage:" control "${control}")
    file(WRITE ${tree}/DEBIAN/control "${control}")
  endif()
  file(REMOVE ${tree}/DEBIAN/postinst ${tree}/DEBIAN/postrm)
  if(name MATCHES "^libkelrt7-5_")
    execute_process(COMMAND dpkg-gensymbols -plibkelrt7-5 -P${tree} -q
      -v${CPACK_PACKAGE_VERSION} -a${CPACK_DEBIAN_PACKAGE_ARCHITECTURE}
      COMMAND_ERROR_IS_FATAL ANY)
  endif()
  execute_process(COMMAND dpkg-deb --root-owner-group --build ${tree} ${package}
    OUTPUT_QUIET COMMAND_ERROR_IS_FATAL ANY)
  file(REMOVE_RECURSE ${tree})
endforeach()
