# Compiler settings that every target of this project shares, on one interface target, and the
# functions that make our kinds of target. Warnings are errors in our presets, which say so by
# CMAKE_COMPILE_WARNING_AS_ERROR; they do not stop a build with another compiler.
include(CheckPIESupported)

add_library(tsl_build_settings INTERFACE)
target_compile_options(
  tsl_build_settings
  INTERFACE
    -Wall
    -Wextra
    -Wpedantic
    -Wconversion
    -Wsign-conversion
    -Wshadow
    -Wcast-qual
    -Wformat=2
    -Wundef
    $<$<COMPILE_LANGUAGE:CXX>:-Wnon-virtual-dtor>
    $<$<COMPILE_LANGUAGE:CXX>:-Woverloaded-virtual>
    $<$<COMPILE_LANGUAGE:CXX>:-Wold-style-cast>
    $<$<COMPILE_LANGUAGE:CXX>:-Wextra-semi>
    $<$<CXX_COMPILER_ID:Clang>:-Wthread-safety>)

# Flags from outside (CXXFLAGS, CMAKE_CXX_FLAGS, LDFLAGS, flags of the build type) win. They come before
# the options of targets on the command line, so a default is left out if they set the same.
string(TOUPPER "FLAGS_${CMAKE_BUILD_TYPE}" tsl_flags_type)
set(tsl_compile_flags "${CMAKE_CXX_FLAGS} ${CMAKE_CXX_${tsl_flags_type}}")
set(tsl_link_flags "${CMAKE_EXE_LINKER_FLAGS} ${CMAKE_SHARED_LINKER_FLAGS}")

# tsl_default_option(compile|link PATTERN OPTION): OPTION, unless a flag from outside matches PATTERN.
function(tsl_default_option what pattern option)
  if(NOT tsl_${what}_flags MATCHES "${pattern}")
    cmake_language(CALL target_${what}_options tsl_build_settings INTERFACE ${option})
  endif()
endfunction()

tsl_default_option(compile "-f(no-)?omit-frame-pointer" -fno-omit-frame-pointer)
# Calls between libraries without the detour over the PLT, within one directly.
tsl_default_option(compile "-f(no-)?plt" -fno-plt)
tsl_default_option(compile "-f(no-)?semantic-interposition"
                   $<$<CXX_COMPILER_ID:GNU>:-fno-semantic-interposition>)

# Memory errors stop the program before they can be exploited. The sanitizers find more of them.
check_pie_supported()
set(tsl_fortify "")
if(TSL_HARDENING AND NOT TSL_SANITIZE)
  tsl_default_option(compile "-f(no-)?stack-protector" -fstack-protector-strong)
  tsl_default_option(compile "-f(no-)?stack-clash-protection" -fstack-clash-protection)
  if(CMAKE_SYSTEM_PROCESSOR MATCHES "^(x86_64|amd64|i[3-6]86)$")
    tsl_default_option(compile "-f(no-)?cf-protection" -fcf-protection)
  endif()
  tsl_default_option(link "-z[, ](no)?relro" -Wl,-z,relro)
  tsl_default_option(link "-z[, ](now|lazy)" -Wl,-z,now)

  # glibc checks nothing without optimisation, and warns.
  string(REGEX MATCHALL "(^| )-O[^ ]*" tsl_levels "${tsl_compile_flags}")
  if(tsl_levels
     AND NOT tsl_levels MATCHES "-O0$"
     AND NOT tsl_compile_flags MATCHES "_FORTIFY_SOURCE")
    set(tsl_fortify -U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=3)
  endif()
endif()

if(NOT TSL_BUILD_FUZZ)
  # Clang's sanitizers leave it to the program to bring what instrumented libraries call.
  target_link_options(tsl_build_settings INTERFACE -Wl,--no-undefined)
endif()
if(TSL_SANITIZE)
  target_compile_options(tsl_build_settings INTERFACE -fsanitize=${TSL_SANITIZE}
                                                      -fno-sanitize-recover=all)
  target_link_options(tsl_build_settings INTERFACE -fsanitize=${TSL_SANITIZE})
endif()

# Has the sources of each target of this directory compiled together, some at a time, in half of the
# time. SKIP_UNITY_BUILD_INCLUSION is for files with names that others have too.
# -DCMAKE_UNITY_BUILD=OFF compiles each alone, as those who analyse single sources need.
macro(tsl_compile_together)
  if(NOT DEFINED CMAKE_UNITY_BUILD)
    set(CMAKE_UNITY_BUILD ON)
    set(CMAKE_UNITY_BUILD_BATCH_SIZE 10)
  endif()
endmacro()

# The settings that library and program targets have in common: hidden symbols unless exported by
# name, and our include roots.
function(tsl_common_settings target)
  target_link_libraries(${target} PRIVATE $<BUILD_INTERFACE:tsl_build_settings>)
  target_compile_options(${target} PRIVATE ${tsl_fortify})
  set_target_properties(
    ${target}
    PROPERTIES CXX_VISIBILITY_PRESET hidden
               C_VISIBILITY_PRESET hidden
               VISIBILITY_INLINES_HIDDEN ON
               POSITION_INDEPENDENT_CODE ON)
endfunction()
