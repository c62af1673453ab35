# Compile settings shared by the library's own targets.

add_library(velmora_warnings INTERFACE)
target_compile_options(velmora_warnings INTERFACE -Wall -Wextra -Werror)

# Links the platform's debug-output library: the device's when VELMORA_PLATFORM_DEBUG_LIBRARY
# names one, the stand-in otherwise.
function(velmora_link_platform_debug target scope)
  if(VELMORA_PLATFORM_DEBUG_LIBRARY)
    target_link_libraries(${target} ${scope} "${VELMORA_PLATFORM_DEBUG_LIBRARY}")
    target_include_directories(${target} ${scope}
      $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/platform/vex_debug>)
  else()
    target_link_libraries(${target} ${scope} vex-debug)
  endif()
endfunction()
