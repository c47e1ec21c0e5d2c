# What an installation consists of, and how other builds find it: by the CMake package TslAddressMap
# or by the pkg-config module tsladdressmap.
include(CMakePackageConfigHelpers)

# A folder of our own: the names of the headers are short.
set(tsl_include_dir ${CMAKE_INSTALL_INCLUDEDIR}/tsladdressmap)
set(tsl_package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/TslAddressMap)

# Whoever installs the private libraries beside the tool need not tell the loader where they are.
file(RELATIVE_PATH tsl_bin_to_lib ${CMAKE_INSTALL_FULL_BINDIR} ${CMAKE_INSTALL_FULL_LIBDIR})
set_target_properties(tsl-address-map PROPERTIES INSTALL_RPATH "\$ORIGIN/${tsl_bin_to_lib}")
set_target_properties(tsl_platform tsladdressmap PROPERTIES INSTALL_RPATH "\$ORIGIN")

install(
  TARGETS tsl_platform tsladdressmap
  EXPORT TslAddressMapTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  INCLUDES
  DESTINATION ${tsl_include_dir})
install(TARGETS tsl-address-map RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})

install(DIRECTORY include2/ DESTINATION ${tsl_include_dir} FILES_MATCHING PATTERN "*.h")
install(FILES platform/base/Exception.h platform/base/Export.h DESTINATION ${tsl_include_dir}/base)
install(FILES platform/address/EmailAddress.h platform/address/tsl_emailaddress.h
        DESTINATION ${tsl_include_dir}/address)

install(EXPORT TslAddressMapTargets NAMESPACE TslAddressMap:: DESTINATION ${tsl_package_dir})
configure_package_config_file(packaging/TslAddressMapConfig.cmake.in
                              ${PROJECT_BINARY_DIR}/packaging/TslAddressMapConfig.cmake
                              INSTALL_DESTINATION ${tsl_package_dir})
write_basic_package_version_file(
  ${PROJECT_BINARY_DIR}/packaging/TslAddressMapConfigVersion.cmake COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/packaging/TslAddressMapConfig.cmake
              ${PROJECT_BINARY_DIR}/packaging/TslAddressMapConfigVersion.cmake
        DESTINATION ${tsl_package_dir})

# The module finds its prefix from its own place, so that an installation may be moved.
file(RELATIVE_PATH tsl_pkgconfig_to_prefix ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig
     ${CMAKE_INSTALL_PREFIX})
configure_file(packaging/tsladdressmap.pc.in ${PROJECT_BINARY_DIR}/packaging/tsladdressmap.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/packaging/tsladdressmap.pc
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
