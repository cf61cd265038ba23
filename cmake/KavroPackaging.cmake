# The Debian packages: libkavro-rt1 (the library), libkavro-rt-dev and
# kavro-tools, each with its copyright and changelog; the library and the
# programs stripped, their debug symbols in -dbgsym packages; dependencies
# computed by dpkg-shlibdeps; shlibs, symbols and the ldconfig trigger for
# the library.
set(KAVRO_DEB_RUNTIME libkavro-rt1)
set(KAVRO_DEB_DEV libkavro-rt-dev)
set(KAVRO_DEB_TOOLS kavro-tools)

# Debian wants compressed changelogs, reproducible (gzip -n: no name, no time).
set(_deb ${PROJECT_BINARY_DIR}/debian)
file(MAKE_DIRECTORY ${_deb})
configure_file(${PROJECT_SOURCE_DIR}/debian/changelog ${_deb}/changelog COPYONLY)
execute_process(COMMAND gzip -9nf ${_deb}/changelog RESULT_VARIABLE _gz)
if(NOT _gz EQUAL 0)
  message(FATAL_ERROR "gzip failed on the changelog")
endif()
foreach(comp runtime dev tools)
  string(TOUPPER ${comp} _c)
  install(FILES ${PROJECT_SOURCE_DIR}/debian/copyright ${_deb}/changelog.gz
    DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc/${KAVRO_DEB_${_c}} COMPONENT ${comp})
endforeach()

# The symbols file lists every export at the version that introduced it;
# the exported-symbol lists of the tests are the interface.
file(GLOB _lists ${PROJECT_SOURCE_DIR}/tests/exports/*.txt)
list(SORT _lists)
set(_symbols "libkavro_rt.so.1 ${KAVRO_DEB_RUNTIME} #MINVER#\n")
foreach(l ${_lists})
  file(STRINGS ${l} _names REGEX "^[A-Za-z_]")
  foreach(n ${_names})
    string(STRIP "${n}" n)
    string(APPEND _symbols " ${n}@Base 1.0.0\n")
  endforeach()
endforeach()
file(WRITE ${_deb}/symbols "${_symbols}")
file(WRITE ${_deb}/triggers "activate-noawait ldconfig\n")

if(KAVRO_ARCH STREQUAL "i386")
  set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE i386)
else()
  set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE amd64)
endif()
# Packing needs the library and the programs, not a rebuild of every test.
set(CMAKE_SKIP_INSTALL_ALL_DEPENDENCY ON)
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME libkavro-rt)
set(CPACK_PACKAGE_VENDOR "Torvanex")
set(CPACK_PACKAGE_CONTACT "Torvanex runtime team <runtime@torvanex.invalid>")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_COMPONENTS_ALL runtime dev tools)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
# Each package's summary is the first line of its own description.
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "")
set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS ON)
set(CPACK_POST_BUILD_SCRIPTS ${PROJECT_SOURCE_DIR}/cmake/KavroDebPost.cmake)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# kavro-tools links the library of its sibling package, found here at pack time.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${PROJECT_BINARY_DIR})
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")
set(CPACK_DEBIAN_DEBUGINFO_PACKAGE ON)

set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME ${KAVRO_DEB_RUNTIME})
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA "${_deb}/symbols;${_deb}/triggers")
set(CPACK_DEBIAN_RUNTIME_DESCRIPTION "portable OS layer runtime library for Torvanex processes\nThreads, task locks, semaphores, mailboxes, the 2 ms tick, IPC channels,\nregistry and module loading for Torvanex processes, behind a plain C\ninterface.")

set(CPACK_DEBIAN_DEV_PACKAGE_NAME ${KAVRO_DEB_DEV})
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEV_DEBUGINFO_PACKAGE OFF)
set(CPACK_COMPONENT_DEV_DEPENDS runtime)
set(CPACK_DEBIAN_DEV_DESCRIPTION "portable OS layer runtime library - development files\nHeaders, pkg-config file, CMake package and the libkavro_rt(7) manual page\nof libkavro_rt.")

set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME ${KAVRO_DEB_TOOLS})
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION admin)
set(CPACK_COMPONENT_TOOLS_DEPENDS runtime)
set(CPACK_DEBIAN_TOOLS_DESCRIPTION "operator tool and demo host for libkavro_rt\nkavro reads and writes the registry, lists and cleans IPC channels and\nmeasures the 2 ms tick's lateness; kavro-demo runs a host program of the\nproduct's shape against the installed library.")
include(CPack)
