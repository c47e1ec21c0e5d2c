# Compiler settings that every target of this project shares, on one interface target, and the
# functions that make our kinds of target.

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
    -Werror
    $<$<COMPILE_LANGUAGE:CXX>:-Wnon-virtual-dtor>
    $<$<COMPILE_LANGUAGE:CXX>:-Woverloaded-virtual>
    $<$<COMPILE_LANGUAGE:CXX>:-Wold-style-cast>
    $<$<COMPILE_LANGUAGE:CXX>:-Wextra-semi>
    $<$<CXX_COMPILER_ID:Clang>:-Wthread-safety>
    -fno-omit-frame-pointer
    # Calls between libraries without the detour over the PLT, within one directly.
    -fno-plt
    $<$<CXX_COMPILER_ID:GNU>:-fno-semantic-interposition>)
target_link_options(tsl_build_settings INTERFACE -Wl,-z,relro,-z,now)
if(NOT TSL_BUILD_FUZZ)
  # Clang's sanitizers leave it to the program to bring what instrumented libraries call.
  target_link_options(tsl_build_settings INTERFACE -Wl,--no-undefined)
endif()
if(TSL_SANITIZE)
  target_compile_options(tsl_build_settings INTERFACE -fsanitize=${TSL_SANITIZE}
                                                      -fno-sanitize-recover=all)
  target_link_options(tsl_build_settings INTERFACE -fsanitize=${TSL_SANITIZE})
endif()

# The settings that library and program targets have in common: hidden symbols unless exported by
# name, and our include roots.
function(tsl_common_settings target)
  target_link_libraries(${target} PRIVATE $<BUILD_INTERFACE:tsl_build_settings>)
  set_target_properties(
    ${target}
    PROPERTIES CXX_VISIBILITY_PRESET hidden
               C_VISIBILITY_PRESET hidden
               VISIBILITY_INLINES_HIDDEN ON
               POSITION_INDEPENDENT_CODE ON)
endfunction()
