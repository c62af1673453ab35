# Compile settings shared by the library's own targets.

# Warnings are errors only where the project's developers and CI ask for it (every preset does):
# a builder with another compiler or other flags gets warnings, not a failed build.
option(VELMORA_WARNINGS_AS_ERRORS "Treat compiler warnings in the project's own code as errors" OFF)

add_library(velmora_warnings INTERFACE)
target_compile_options(velmora_warnings INTERFACE -Wall -Wextra
  $<$<BOOL:${VELMORA_WARNINGS_AS_ERRORS}>:-Werror>)

# Links the platform's debug-output library: the device's when VELMORA_PLATFORM_DEBUG_LIBRARY
# names one, the stand-in otherwise.
# Installed, the library refers to the stand-in's exported target, or to the device's library by
# its link name.
function(velmora_link_platform_debug target scope)
  if(VELMORA_PLATFORM_DEBUG_LIBRARY)
    target_link_libraries(${target} ${scope}
      $<BUILD_INTERFACE:${VELMORA_PLATFORM_DEBUG_LIBRARY}> $<INSTALL_INTERFACE:vex-debug>)
    target_include_directories(${target} ${scope}
      $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/platform/vex_debug>)
  elseif(VELMORA_INSTALL_PLATFORM_STANDIN)
    target_link_libraries(${target} ${scope} vex-debug)
  else()
    target_link_libraries(${target} ${scope} $<BUILD_INTERFACE:vex-debug>
      $<INSTALL_INTERFACE:vex-debug>)
  endif()
endfunction()
