# What an installation consists of, and how other builds find it: by the CMake package TslAddressMap
# or by the pkg-config module tsladdressmap. cmake/Package.cmake makes Debian packages of the same.
include(CMakePackageConfigHelpers)

# The manual pages are made from the documents and the headers of the C interface.
set(tsl_manual_dir ${PROJECT_BINARY_DIR}/packaging/man)
find_program(TSL_LOWDOWN lowdown DOC "The program that makes the manual pages; OFF: make none")
if(TSL_LOWDOWN)
  # Section 3 is for those who program, the others for those who run the tool.
  set(tsl_development_pages ${tsl_manual_dir}/tsl_address_map.3)
  set(tsl_tool_pages ${tsl_manual_dir}/tsl-address-map.1 ${tsl_manual_dir}/tsl-address-map-files.5
                     ${tsl_manual_dir}/tsl-address-map-serve.8)
  add_custom_command(
    OUTPUT ${tsl_development_pages} ${tsl_tool_pages}
    COMMAND ${PROJECT_SOURCE_DIR}/scripts/make-manual ${TSL_LOWDOWN} ${tsl_manual_dir}
    DEPENDS scripts/make-manual VERSION docs/tool.md docs/files.md docs/serve.md docs/c-interface.md
            include2/tsl_address_map.h platform/address/tsl_emailaddress.h
    COMMENT "Making the manual pages"
    VERBATIM)
  add_custom_target(tsl_manual ALL DEPENDS ${tsl_development_pages} ${tsl_tool_pages})
else()
  message(STATUS "No lowdown: no manual pages are built and installed")
endif()

# Directories of our own: the names of the headers are short.
set(tsl_include_dir ${CMAKE_INSTALL_INCLUDEDIR}/tsladdressmap)

# The tool finds its libraries relative to its own place, so a private installation needs no loader
# settings.
file(RELATIVE_PATH tsl_bin_to_lib ${CMAKE_INSTALL_FULL_BINDIR} ${CMAKE_INSTALL_FULL_LIBDIR})
set_target_properties(tsl-address-map PROPERTIES INSTALL_RPATH "\$ORIGIN/${tsl_bin_to_lib}")
set_target_properties(tsl_platform tsladdressmap PROPERTIES INSTALL_RPATH "\$ORIGIN")

# tsl_install_targets(FLAVOUR LIBDIR [EXCLUDE_FROM_ALL]): the rules for all that depends on the
# directory of the libraries, LIBDIR, which is written into the files by which other builds find us.
# The components are FLAVOURlibrary, FLAVOURdevelopment and FLAVOURtool.
function(tsl_install_targets flavour libdir)
  set(optional ${ARGN})
  set(package_dir ${libdir}/cmake/TslAddressMap)
  set(generated_dir ${PROJECT_BINARY_DIR}/packaging/${flavour}files)
  install(
    TARGETS tsl_platform tsladdressmap
    EXPORT ${flavour}TslAddressMapTargets
    LIBRARY DESTINATION ${libdir}
            COMPONENT ${flavour}library
            NAMELINK_COMPONENT ${flavour}development
            ${optional}
    INCLUDES
    DESTINATION ${tsl_include_dir})
  install(TARGETS tsl-address-map RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR}
                                          COMPONENT ${flavour}tool ${optional})

  install(
    EXPORT ${flavour}TslAddressMapTargets
    NAMESPACE TslAddressMap::
    FILE TslAddressMapTargets.cmake
    DESTINATION ${package_dir}
    COMPONENT ${flavour}development ${optional})
  configure_package_config_file(packaging/TslAddressMapConfig.cmake.in
                                ${generated_dir}/TslAddressMapConfig.cmake
                                INSTALL_DESTINATION ${package_dir})
  write_basic_package_version_file(${generated_dir}/TslAddressMapConfigVersion.cmake
                                   COMPATIBILITY SameMajorVersion)
  install(
    FILES ${generated_dir}/TslAddressMapConfig.cmake
          ${generated_dir}/TslAddressMapConfigVersion.cmake
    DESTINATION ${package_dir}
    COMPONENT ${flavour}development ${optional})

  # The module finds its prefix from its own place, so that an installation may be moved.
  set(tsl_libdir ${libdir})
  file(RELATIVE_PATH tsl_pkgconfig_to_prefix /prefix/${libdir}/pkgconfig /prefix)
  configure_file(packaging/tsladdressmap.pc.in ${generated_dir}/tsladdressmap.pc @ONLY)
  install(FILES ${generated_dir}/tsladdressmap.pc DESTINATION ${libdir}/pkgconfig
          COMPONENT ${flavour}development ${optional})
endfunction()

# tsl_install_files(FLAVOUR DEVELOPMENT_DOC TOOL_DOC [EXCLUDE_FROM_ALL]): the rules for headers, manual
# pages, the completion of words, and documents, which go to DEVELOPMENT_DOC and TOOL_DOC.
function(tsl_install_files flavour development_doc tool_doc)
  set(development COMPONENT ${flavour}development ${ARGN})
  set(tool COMPONENT ${flavour}tool ${ARGN})
  install(DIRECTORY include2/ DESTINATION ${tsl_include_dir} ${development}
          FILES_MATCHING PATTERN "*.h")
  install(FILES platform/base/Exception.h platform/base/Export.h
          DESTINATION ${tsl_include_dir}/base ${development})
  install(FILES platform/address/EmailAddress.h platform/address/tsl_emailaddress.h
          DESTINATION ${tsl_include_dir}/address ${development})

  install(FILES ${tsl_development_pages} DESTINATION ${CMAKE_INSTALL_MANDIR}/man3 ${development})
  foreach(page IN LISTS tsl_tool_pages)
    string(REGEX REPLACE ".*\\." "" section ${page})
    install(FILES ${page} DESTINATION ${CMAKE_INSTALL_MANDIR}/man${section} ${tool})
  endforeach()

  # Bash looks for it under the name of the program.
  install(FILES packaging/tsl-address-map.bash RENAME tsl-address-map
          DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions ${tool})

  install(FILES ${PROJECT_BINARY_DIR}/packaging/${flavour}files/tsl-address-map.service
                packaging/systemd/tsl-address-map.socket
                packaging/systemd/tsl-address-map-policy.socket DESTINATION lib/systemd/system ${tool})
  install(FILES packaging/systemd/tsl-address-map.sysusers RENAME tsl-address-map.conf
          DESTINATION lib/sysusers.d ${tool})
  install(FILES packaging/systemd/tsl-address-map.tmpfiles RENAME tsl-address-map.conf
          DESTINATION lib/tmpfiles.d ${tool})

  install(DIRECTORY docs/ DESTINATION ${development_doc} ${development}
          FILES_MATCHING PATTERN "*.md" PATTERN contributing.md EXCLUDE)
  install(FILES docs/production.md docs/tool.md docs/serve.md docs/postfix.md docs/masks.md docs/sendmail.md
                docs/exim.md docs/opensmtpd.md docs/configuration.md docs/failures.md
          DESTINATION ${tool_doc} ${tool})
  install(DIRECTORY examples/ DESTINATION ${development_doc}/examples ${development}
          PATTERN examples/CMakeLists.txt EXCLUDE)
endfunction()

# The prefix may be another one than that of the build: cmake --install --prefix.
install(
  CODE "
  set(tsl_program_dir \"${CMAKE_INSTALL_BINDIR}\")
  cmake_path(ABSOLUTE_PATH tsl_program_dir BASE_DIRECTORY \"\${CMAKE_INSTALL_PREFIX}\" NORMALIZE)
  configure_file(\"${PROJECT_SOURCE_DIR}/packaging/systemd/tsl-address-map.service.in\"
                 \"${PROJECT_BINARY_DIR}/packaging/files/tsl-address-map.service\" @ONLY)"
  COMPONENT tool)
tsl_install_targets("" ${CMAKE_INSTALL_LIBDIR})
tsl_install_files("" ${CMAKE_INSTALL_DOCDIR} ${CMAKE_INSTALL_DOCDIR})
