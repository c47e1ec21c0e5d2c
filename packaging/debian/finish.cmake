# What is done to the files of the packages before they are packed. Run by CPack, with the files of
# each component in a directory of its own below CPACK_TEMPORARY_DIRECTORY.
find_program(tsl_strip strip REQUIRED)
find_program(tsl_gzip gzip REQUIRED)

# Programs and libraries: without symbols that nobody links with. They are where the loader looks, so
# the run paths of a private installation would only be a way to load something else.
file(GLOB_RECURSE binaries ${CPACK_TEMPORARY_DIRECTORY}/*/usr/bin/*
     ${CPACK_TEMPORARY_DIRECTORY}/*/usr/lib/*.so.*)
foreach(binary IN LISTS binaries)
  if(IS_SYMLINK ${binary})
    continue()
  endif()
  file(RPATH_REMOVE FILE ${binary})
  execute_process(COMMAND ${tsl_strip} --strip-unneeded --remove-section=.comment
                          --remove-section=.note ${binary} COMMAND_ERROR_IS_FATAL ANY)
endforeach()

# Manual pages and change logs are compressed, without the time at which that was done.
file(GLOB_RECURSE texts ${CPACK_TEMPORARY_DIRECTORY}/*/usr/share/man/*
     ${CPACK_TEMPORARY_DIRECTORY}/*/usr/share/doc/*/changelog*)
foreach(text IN LISTS texts)
  execute_process(COMMAND ${tsl_gzip} -9 --no-name --force ${text} COMMAND_ERROR_IS_FATAL ANY)
endforeach()

# The same permissions whatever the umask of the person who builds the packages. Those of files are
# set when they are installed.
file(GLOB_RECURSE entries LIST_DIRECTORIES TRUE ${CPACK_TEMPORARY_DIRECTORY}/*)
foreach(entry IN LISTS entries)
  if(IS_DIRECTORY ${entry} AND NOT IS_SYMLINK ${entry})
    file(CHMOD ${entry} PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE
                                    WORLD_READ WORLD_EXECUTE)
  endif()
endforeach()
