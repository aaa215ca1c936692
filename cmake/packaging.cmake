# Debian packages, one per install component:
#   libcamctl0     (lib)     the shared library
#   libcamctl-dev  (dev)     headers, the .so link, camctl.pc, the CMake package
#   camctl         (tool)    camctl, camsim, camctl(1), bash completion, CLI.md
#   python3-camctl (python)  the Python module, once the camctl_python target
#                            exists; its install rules must use COMPONENT python
# Built by `cpack -G DEB` in the build folder (scripts/package.sh configures a
# build for /usr and runs it). Dependencies on other libraries come from
# dpkg-shlibdeps; libcamctl0 carries a shlibs file for packages built on it.

set(CAMCTL_DEB_COMPONENTS lib dev tool)
set(CPACK_DEBIAN_LIB_PACKAGE_NAME libcamctl${PROJECT_VERSION_MAJOR})
set(CPACK_DEBIAN_DEV_PACKAGE_NAME libcamctl-dev)
set(CPACK_DEBIAN_TOOL_PACKAGE_NAME camctl)
set(CPACK_DEBIAN_PYTHON_PACKAGE_NAME python3-camctl)
if(TARGET camctl_python)
  list(APPEND CAMCTL_DEB_COMPONENTS python)
endif()

set(CPACK_PACKAGE_NAME camctl)
set(CPACK_PACKAGE_VENDOR "Camctl developers")
set(CAMCTL_DEB_MAINTAINER "Camctl developers <camctl@example.org>" CACHE STRING
  "Maintainer field of the Debian packages")
set(CPACK_PACKAGE_CONTACT ${CAMCTL_DEB_MAINTAINER})
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_COMPONENTS_ALL ${CAMCTL_DEB_COMPONENTS})
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# camctl and the Python module link libcamctl.so.0 from the build folder;
# their dependency on libcamctl0 comes from the component dependencies.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${PROJECT_BINARY_DIR})
set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS ON)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)

set(CPACK_COMPONENT_DEV_DEPENDS lib)
set(CPACK_COMPONENT_TOOL_DEPENDS lib)
set(CPACK_COMPONENT_PYTHON_DEPENDS lib)
set(CPACK_DEBIAN_LIB_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_TOOL_PACKAGE_SECTION video)
set(CPACK_DEBIAN_PYTHON_PACKAGE_SECTION python)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")
# The dynamic linker's cache is refreshed through dpkg's ldconfig trigger.
configure_file(cmake/debian-lib-triggers ${PROJECT_BINARY_DIR}/debian/lib/triggers COPYONLY)
set(CPACK_DEBIAN_LIB_PACKAGE_CONTROL_EXTRA ${PROJECT_BINARY_DIR}/debian/lib/triggers)

set(CAMCTL_DEB_ABOUT
  "Camctl connects to IP cameras over RTSP, a framed HTTP stream or files,\n\
decodes their pictures and audio, records AVI files on demand, on schedules\n\
or on motion, takes JPEG and BMP snapshots and plays recordings back.\n.\n")
set(CPACK_COMPONENT_LIB_DESCRIPTION "client library for IP cameras\n${CAMCTL_DEB_ABOUT}\
This package holds the shared library.")
set(CPACK_COMPONENT_DEV_DESCRIPTION "client library for IP cameras (development files)\n${CAMCTL_DEB_ABOUT}\
This package holds the headers, the pkg-config file and the CMake package.")
set(CPACK_COMPONENT_TOOL_DESCRIPTION "command-line host and camera simulator for IP cameras\n${CAMCTL_DEB_ABOUT}\
This package holds camctl, which drives the library from the command line,\n\
and camsim, a camera simulator serving the framed HTTP stream on 127.0.0.1.")
set(CPACK_COMPONENT_PYTHON_DESCRIPTION "client library for IP cameras (Python 3 module)\n${CAMCTL_DEB_ABOUT}\
This package holds the Python 3 module.")

# Every package carries its copyright file and a changelog (native packages:
# changelog.gz), both below /usr/share/doc/PACKAGE.
string(TIMESTAMP CAMCTL_DEB_DATE "%a, %d %b %Y %H:%M:%S +0000" UTC)
foreach(component IN LISTS CAMCTL_DEB_COMPONENTS)
  string(TOUPPER ${component} upper)
  set(package ${CPACK_DEBIAN_${upper}_PACKAGE_NAME})
  set(docdir ${PROJECT_BINARY_DIR}/debian/${package})
  file(WRITE ${docdir}/changelog
    "${package} (${PROJECT_VERSION}) unstable; urgency=medium\n\n"
    "  * Built from the Camctl source tree.\n\n"
    " -- ${CPACK_PACKAGE_CONTACT}  ${CAMCTL_DEB_DATE}\n")
  execute_process(COMMAND gzip -9nf ${docdir}/changelog)
  install(FILES ${docdir}/changelog.gz
    DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc/${package} COMPONENT ${component})
  install(FILES ${PROJECT_SOURCE_DIR}/cmake/debian-copyright
    DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc/${package} RENAME copyright COMPONENT ${component})
endforeach()

include(CPack)
