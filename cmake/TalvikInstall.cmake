# What the outside sees: the library's exported symbols, and the files of `cmake --install`.
include(CMakePackageConfigHelpers)

# Hidden visibility keeps the internal functions in; the map also keeps in the instances of standard
# templates, which the standard library declares visible.
target_link_options(talvikmpi PRIVATE
  "LINKER:--version-script=${CMAKE_CURRENT_SOURCE_DIR}/cmake/talvikmpi.map")
set_property(TARGET talvikmpi APPEND PROPERTY
  LINK_DEPENDS "${CMAKE_CURRENT_SOURCE_DIR}/cmake/talvikmpi.map")

set(talvik_package_dir "${CMAKE_INSTALL_LIBDIR}/cmake/talvik")
install(TARGETS talvikmpi EXPORT talvikTargets
  LIBRARY DESTINATION "${CMAKE_INSTALL_LIBDIR}"
  INCLUDES DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}")
install(FILES include/talvik.hpp DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}")
install(FILES LICENSE DESTINATION "${CMAKE_INSTALL_DOCDIR}")
install(EXPORT talvikTargets NAMESPACE talvik:: DESTINATION "${talvik_package_dir}")

configure_package_config_file(cmake/talvikConfig.cmake.in talvikConfig.cmake
  INSTALL_DESTINATION "${talvik_package_dir}"
  NO_SET_AND_CHECK_MACRO NO_CHECK_REQUIRED_COMPONENTS_MACRO)
write_basic_package_version_file(talvikConfigVersion.cmake COMPATIBILITY SameMinorVersion)
install(FILES
  "${CMAKE_CURRENT_BINARY_DIR}/talvikConfig.cmake"
  "${CMAKE_CURRENT_BINARY_DIR}/talvikConfigVersion.cmake"
  DESTINATION "${talvik_package_dir}")

# The .pc file finds its prefix from its own place, so that an installed tree can be moved.
if(IS_ABSOLUTE "${CMAKE_INSTALL_LIBDIR}")
  set(talvik_pc_prefix "${CMAKE_INSTALL_PREFIX}")
else()
  file(RELATIVE_PATH talvik_pc_prefix "/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/")
  string(REGEX REPLACE "/$" "" talvik_pc_prefix "\${pcfiledir}/${talvik_pc_prefix}")
endif()
configure_file(cmake/talvik.pc.in talvik.pc @ONLY)
install(FILES "${CMAKE_CURRENT_BINARY_DIR}/talvik.pc"
  DESTINATION "${CMAKE_INSTALL_LIBDIR}/pkgconfig")

# The installed host program (tools/talvik) finds the library beside itself, wherever both lie.
if(TALVIK_BUILD_TOOLS)
  file(RELATIVE_PATH talvik_bin_to_lib "${CMAKE_INSTALL_FULL_BINDIR}" "${CMAKE_INSTALL_FULL_LIBDIR}")
  set_property(TARGET talvik PROPERTY INSTALL_RPATH "$ORIGIN/${talvik_bin_to_lib}")
endif()

# cmake --build build --target uninstall
configure_file(cmake/uninstall.cmake.in uninstall.cmake @ONLY)
add_custom_target(uninstall
  COMMAND ${CMAKE_COMMAND} -P "${CMAKE_CURRENT_BINARY_DIR}/uninstall.cmake")
