# Installs BUILD_DIR into a fresh PREFIX, and looks for what no consumer of the library uses.
file(REMOVE_RECURSE "${PREFIX}")
execute_process(COMMAND ${CMAKE_COMMAND} --install "${BUILD_DIR}" --prefix "${PREFIX}"
  OUTPUT_QUIET COMMAND_ERROR_IS_FATAL ANY)

file(GLOB licence "${PREFIX}/share/doc/*/LICENSE")
if(NOT licence)
  message(SEND_ERROR "the licence is not installed")
endif()
# The targets file is read by projects that have none of our own dependencies.
file(READ "${PREFIX}/${LIBDIR}/cmake/talvik/talvikTargets.cmake" targets)
if(targets MATCHES "MPI::|OpenMP|Eigen|PkgConfig|talvik_objects|talvik_build_options")
  message(SEND_ERROR "talvikTargets.cmake names a private dependency: ${CMAKE_MATCH_0}")
endif()
if(EXISTS "${PREFIX}/bin/talvik")
  execute_process(COMMAND "${PREFIX}/bin/talvik" --version
    OUTPUT_QUIET COMMAND_ERROR_IS_FATAL ANY)
endif()
