# Debian packages of the install components, made by `make package` (cpack
# in each target's build tree): libkelrt7-5 (the shared objects),
# libkelrt7-dev (headers, .so links, pkg-config file, CMake package) for amd64
# and i386, and kelr-render (amd64 only, where the renderer is built).
# Libraries sit in the multiarch folders and both library packages are
# Multi-Arch: same, so the two architectures install side by side.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME kelrt7)
set(CPACK_PACKAGE_VENDOR "kelrt7")
set(CPACK_PACKAGE_CONTACT "kelrt7 maintainers <maintainers@kelrt7.example>")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
  OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)

set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_POST_BUILD_SCRIPTS ${CMAKE_CURRENT_LIST_DIR}/debian/postbuild.cmake)
set(CPACK_COMPONENTS_GROUPING IGNORE)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_HOMEPAGE "https://kelrt7.example/")
if(KEL_ARCH STREQUAL "i386")
  set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE i386)
else()
  set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE amd64)
endif()
# dpkg-shlibdeps works out the libraries' and the renderer's dependencies
# (libc6, libgomp1, libpng16-16, ...); for i386 it needs the i386 libraries
# installed (cmake/packages.txt). Components depend on each other as declared
# below.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${CMAKE_BINARY_DIR}/lib)
set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS ON)
# A shlibs file (and the ldconfig trigger) for the package holding libraries.
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")

set(KEL_SUMMARY "ray-tracing primitives: kd-trees, ray blocks, shading")
# CPack indents every line of a description; "." alone separates paragraphs.
string(CONCAT KEL_ABOUT
  "kelrt7 builds kd-trees over triangle meshes, traces blocks of rays through\n"
  "them (nearest hit or any occluder, four rays at a time with SSE2) and\n"
  "provides the per-ray geometry and shading arithmetic a renderer needs.")

set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME libkelrt7-5)
# The loader's cache is refreshed by the ldconfig trigger.
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA ${CMAKE_CURRENT_LIST_DIR}/debian/triggers)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_DEBIAN_RUNTIME_DESCRIPTION
  "${KEL_SUMMARY}\n${KEL_ABOUT}\n.\nThis package holds the shared libraries libkelrt7 and libkelcore.")

set(CPACK_DEBIAN_DEV_PACKAGE_NAME libkelrt7-dev)
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
string(CONCAT CPACK_DEBIAN_DEV_DESCRIPTION "${KEL_SUMMARY} (development files)\n${KEL_ABOUT}\n.\n"
  "This package holds the C headers, the linker names, a pkg-config file and\n"
  "a CMake package (find_package(kelrt7 5), target kelrt7::kelrt7).")

set(CPACK_DEBIAN_RENDER_PACKAGE_NAME kelr-render)
set(CPACK_DEBIAN_RENDER_PACKAGE_SECTION graphics)
string(CONCAT CPACK_DEBIAN_RENDER_DESCRIPTION "demo ray tracer built on kelrt7\n"
  "kelr-render renders a built-in scene, or a Wavefront OBJ mesh standing in\n"
  "it, to a PNG with shadows and mirror reflections, doing all its ray work\n"
  "through libkelrt7, and prints what it traced.")

# Each package carries its copyright notice and changelog, as Debian wants;
# the files are byte-identical for both architectures (gzip -n), as
# Multi-Arch: same requires.
set(KEL_DEBIAN_CHANGELOG ${CMAKE_BINARY_DIR}/debian/changelog.gz)
file(MAKE_DIRECTORY ${CMAKE_BINARY_DIR}/debian)
execute_process(COMMAND gzip -9n -c ${CMAKE_CURRENT_LIST_DIR}/debian/changelog
  OUTPUT_FILE ${KEL_DEBIAN_CHANGELOG} COMMAND_ERROR_IS_FATAL ANY)
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS
  ${CMAKE_CURRENT_LIST_DIR}/debian/changelog)

# kel_package_docs(component package)
function(kel_package_docs component package)
  install(FILES ${CMAKE_CURRENT_FUNCTION_LIST_DIR}/debian/copyright ${KEL_DEBIAN_CHANGELOG}
    DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc/${package} COMPONENT ${component})
endfunction()
kel_package_docs(runtime libkelrt7-5)
kel_package_docs(dev libkelrt7-dev)

include(CPackComponent)
cpack_add_component(runtime DISPLAY_NAME "libkelrt7-5")
cpack_add_component(dev DISPLAY_NAME "libkelrt7-dev" DEPENDS runtime)
if(TARGET kelr-render)
  kel_package_docs(render kelr-render)
  cpack_add_component(render DISPLAY_NAME "kelr-render" DEPENDS runtime)
  set(CPACK_COMPONENTS_ALL runtime dev render)
else()
  set(CPACK_COMPONENTS_ALL runtime dev)
endif()
include(CPack)
