# Debian packages of the installation, by `cpack -G DEB`: the two libraries, what is needed to build
# with them, and the tool. The libraries go to the directory of the machine's architecture.
include(GNUInstallDirs)

set(tsl_package_release 1)
set(tsl_package_version ${PROJECT_VERSION}-${tsl_package_release})
set(tsl_package_library libtsladdressmap${PROJECT_VERSION_MAJOR})
set(tsl_package_maintainer "Tessel maintainers <maintainers@tessel.example>")
set(tsl_package_files ${PROJECT_BINARY_DIR}/packaging/debian)

tsl_install_targets(debian_ lib/${CMAKE_LIBRARY_ARCHITECTURE} EXCLUDE_FROM_ALL)
set(tsl_program_dir /usr/bin)
configure_file(packaging/systemd/tsl-address-map.service.in
               ${PROJECT_BINARY_DIR}/packaging/debian_files/tsl-address-map.service @ONLY)
tsl_install_files(debian_ share/doc/libtsladdressmap-dev share/doc/tsl-address-map EXCLUDE_FROM_ALL)

# What Debian wants of every package. packaging/debian/finish.cmake compresses it.
string(TIMESTAMP tsl_package_date "%a, %d %b %Y %H:%M:%S +0000" UTC)
configure_file(packaging/debian/changelog.in ${tsl_package_files}/changelog.Debian @ONLY)

# tsl_package(COMPONENT NAME SECTION SUMMARY DEPENDS DESCRIPTION): one package.
macro(tsl_package component name section summary depends description)
  string(TOUPPER ${component} tsl_upper)
  set(CPACK_DEBIAN_${tsl_upper}_PACKAGE_NAME ${name})
  set(CPACK_DEBIAN_${tsl_upper}_PACKAGE_SECTION ${section})
  set(CPACK_DEBIAN_${tsl_upper}_PACKAGE_DEPENDS "${depends}")
  set(CPACK_DEBIAN_${tsl_upper}_DESCRIPTION "${summary}\n${description}")
  install(FILES ${tsl_package_files}/changelog.Debian packaging/debian/copyright
          DESTINATION share/doc/${name} COMPONENT ${component} EXCLUDE_FROM_ALL)
  install(FILES CHANGELOG.md DESTINATION share/doc/${name} RENAME changelog COMPONENT ${component}
          EXCLUDE_FROM_ALL)
  install(FILES packaging/debian/lintian-overrides DESTINATION share/lintian/overrides
          RENAME ${name} COMPONENT ${component} EXCLUDE_FROM_ALL)
endmacro()

tsl_package(
  debian_library ${tsl_package_library} libs "address maps of a mail server - shared libraries" ""
  "Where mail for an address goes, and what the address looks like from outside,
answered from alias tables and address-mask tables in MariaDB, with a
cache in front of each table.
.
This package has the libraries that programs are linked with.")
# The headers reach nothing but the C and C++ libraries; threads are in libc6-dev.
tsl_package(
  debian_development libtsladdressmap-dev libdevel
  "address maps of a mail server - development files"
  "${tsl_package_library} (= ${tsl_package_version}), libc6-dev"
  "Where mail for an address goes, and what the address looks like from outside,
answered from alias tables and address-mask tables in MariaDB, with a
cache in front of each table.
.
This package has the headers for C++20 and C11, the CMake package
TslAddressMap, the pkg-config module tsladdressmap, the manual and examples.")
# The tool uses inner parts of the platform library, so it wants exactly its own.
tsl_package(
  debian_tool tsl-address-map mail "address maps of a mail server - command-line tool"
  "${tsl_package_library} (= ${tsl_package_version})"
  "Where mail for an address goes, and what the address looks like from outside,
answered from alias tables and address-mask tables in MariaDB, with a
cache in front of each table.
.
This package has the program that prepares the database, manages the tables,
answers mail servers, and starts a private database server for trials.")
# For the private server of `local`, and for the SQL prompt of `local shell`.
set(CPACK_DEBIAN_DEBIAN_TOOL_PACKAGE_RECOMMENDS mariadb-server-core)
set(CPACK_DEBIAN_DEBIAN_TOOL_PACKAGE_SUGGESTS mariadb-client-core)

# Programs that were linked with this version or an older one of the same major number run with it.
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")
# The trigger runs ldconfig. CPack would write scripts that run it once more, unless scripts of ours
# are named: these are not there, and so there are none.
set(CPACK_DEBIAN_DEBIAN_LIBRARY_PACKAGE_CONTROL_EXTRA
    ${PROJECT_SOURCE_DIR}/packaging/debian/triggers
    ${PROJECT_SOURCE_DIR}/packaging/debian/none/postinst
    ${PROJECT_SOURCE_DIR}/packaging/debian/none/postrm)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${CMAKE_LIBRARY_OUTPUT_DIRECTORY})

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME tsl-address-map)
set(CPACK_PACKAGE_VENDOR Tessel)
set(CPACK_PACKAGE_CONTACT "${tsl_package_maintainer}")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_VERBATIM_VARIABLES ON)
set(CPACK_COMPONENTS_ALL debian_library debian_development debian_tool)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE ${tsl_package_release})
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_PRE_BUILD_SCRIPTS ${PROJECT_SOURCE_DIR}/packaging/debian/finish.cmake)
include(CPack)
