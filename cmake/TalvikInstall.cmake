# What the outside sees: the libraries' exported symbols, and the files of `cmake --install`.
include(CMakePackageConfigHelpers)

# Hidden visibility keeps the internal functions in; the maps also keep in the instances of standard
# templates, which the standard library declares visible.
function(talvik_export_by target map)
  target_link_options(${target} PRIVATE "LINKER:--version-script=${map}")
  set_property(TARGET ${target} APPEND PROPERTY LINK_DEPENDS "${map}")
endfunction()
talvik_export_by(talvikmpi "${CMAKE_CURRENT_SOURCE_DIR}/cmake/talvikmpi.map")
talvik_export_by(talvik_search "${CMAKE_CURRENT_SOURCE_DIR}/cmake/talvik.map")

set(talvik_package_dir "${CMAKE_INSTALL_LIBDIR}/cmake/talvik")
install(TARGETS talvikmpi talvik_search EXPORT talvikTargets
  LIBRARY DESTINATION "${CMAKE_INSTALL_LIBDIR}"
  INCLUDES DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}")
install(FILES include/talvik.hpp DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}")
install(DIRECTORY include/talvik DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}" FILES_MATCHING PATTERN *.hpp)
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

# The .pc files find their prefix from their own place, so that an installed tree can be moved.
if(IS_ABSOLUTE "${CMAKE_INSTALL_LIBDIR}")
  set(talvik_pc_prefix "${CMAKE_INSTALL_PREFIX}")
else()
  file(RELATIVE_PATH talvik_pc_prefix "/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/")
  string(REGEX REPLACE "/$" "" talvik_pc_prefix "\${pcfiledir}/${talvik_pc_prefix}")
endif()
foreach(package IN ITEMS talvik talvik-search)
  configure_file(cmake/${package}.pc.in ${package}.pc @ONLY)
  install(FILES "${CMAKE_CURRENT_BINARY_DIR}/${package}.pc"
    DESTINATION "${CMAKE_INSTALL_LIBDIR}/pkgconfig")
endforeach()

# The installed host program (tools/talvik) finds the libraries beside itself, wherever they lie.
if(TALVIK_BUILD_TOOLS)
  file(RELATIVE_PATH talvik_bin_to_lib "${CMAKE_INSTALL_FULL_BINDIR}" "${CMAKE_INSTALL_FULL_LIBDIR}")
  set_property(TARGET talvik PROPERTY INSTALL_RPATH "$ORIGIN/${talvik_bin_to_lib}")
endif()

# cmake --build build --target uninstall
configure_file(cmake/uninstall.cmake.in uninstall.cmake @ONLY)
add_custom_target(uninstall
  COMMAND ${CMAKE_COMMAND} -P "${CMAKE_CURRENT_BINARY_DIR}/uninstall.cmake")
