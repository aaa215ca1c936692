# API reference of include/ with doxygen: `cmake --build build --target docs`
# writes build/docs/api/html/index.html. The target is left out of the
# default build unless CAMCTL_DOCS is ON. An undocumented public or protected
# member of an exported class fails it.
option(CAMCTL_DOCS "Build the API reference (doxygen) with the default target" OFF)
if(CAMCTL_DOCS)
  find_package(Doxygen REQUIRED)
else()
  find_package(Doxygen QUIET)
endif()

if(DOXYGEN_FOUND)
  configure_file(${PROJECT_SOURCE_DIR}/cmake/Doxyfile.in ${PROJECT_BINARY_DIR}/docs/Doxyfile @ONLY)
  set(CAMCTL_DOCS_ALL)
  if(CAMCTL_DOCS)
    set(CAMCTL_DOCS_ALL ALL)
  endif()
  file(GLOB_RECURSE CAMCTL_DOCS_INPUTS CONFIGURE_DEPENDS
    ${PROJECT_SOURCE_DIR}/include/*.h ${PROJECT_SOURCE_DIR}/docs/api/*)
  add_custom_command(OUTPUT ${PROJECT_BINARY_DIR}/docs/api/html/index.html
    COMMAND ${CMAKE_COMMAND} -E make_directory ${PROJECT_BINARY_DIR}/docs/api
    COMMAND Doxygen::doxygen ${PROJECT_BINARY_DIR}/docs/Doxyfile
    DEPENDS ${CAMCTL_DOCS_INPUTS} ${PROJECT_BINARY_DIR}/docs/Doxyfile
    COMMENT "API reference: build/docs/api/html/index.html")
  add_custom_target(docs ${CAMCTL_DOCS_ALL} DEPENDS ${PROJECT_BINARY_DIR}/docs/api/html/index.html)
else()
  add_custom_target(docs
    COMMAND ${CMAKE_COMMAND} -E echo "docs: doxygen was not found (bash scripts/install-deps.sh installs it)"
    COMMAND ${CMAKE_COMMAND} -E false)
endif()
