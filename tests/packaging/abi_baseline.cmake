# Describes the binary interface of the built library with abidw and compares the description
# with the one kept in the repository through abidiff, or writes the kept one anew when UPDATE is
# set.
#
# The description covers the exported functions and variables and every type that the headers in
# HEADERS_DIRS ('|'-separated: the public headers and the compiler's) define, reachable from an
# exported function or not: a class that callers allocate or derive from, such as BrowserEvent,
# may have no out-of-line function of its own. Types of the library's sources are kept as
# declarations only. Source locations, the compilation folder and the library's path are left
# out, and the source folder is cut from the translation units' names, so that the description is
# the same in any build folder on any machine.
set(current "${LIBRARY}.abi.xml")
string(REPLACE "|" ";" headers_dirs "${HEADERS_DIRS}")
set(headers_options)
foreach(dir IN LISTS headers_dirs)
  list(APPEND headers_options --headers-dir ${dir})
endforeach()
execute_process(
  COMMAND ${ABIDW} ${headers_options} --drop-private-types --load-all-types
    --exported-interfaces-only --no-corpus-path --no-comp-dir-path --no-show-locs
    --type-id-style hash --suppressions ${DESCRIBE_SUPPRESSIONS} --out-file ${current} ${LIBRARY}
  RESULT_VARIABLE abidw_result)
if(NOT abidw_result EQUAL 0)
  message(FATAL_ERROR "${ABIDW} failed on ${LIBRARY} (exit code ${abidw_result})")
endif()

file(READ ${current} description)
# Without DWARF abidw still succeeds, with the symbol table alone: a comparison of that would miss
# every layout change.
if(NOT description MATCHES "<class-decl [^>]*size-in-bits=")
  message(FATAL_ERROR "${ABIDW} found no debug information in ${LIBRARY}: the comparison needs a "
    "build with -g.")
endif()
string(REPLACE "path='${SOURCE_DIR}/" "path='" description "${description}")
file(WRITE ${current} "${description}")

if(UPDATE)
  file(COPY_FILE ${current} ${BASELINE})
  message(STATUS "Wrote ${BASELINE}")
  return()
endif()

# Two comparisons, each reporting every changed type by itself (--leaf-changes-only), not only
# along the paths from the exported functions to it, and reporting what abidiff deems harmless too
# (--harmless: an added enumerator, a changed access), so that the interface changes only on
# purpose:
# - the exported functions and variables and every type they reach, through standard-library
#   templates too (EventHub's std::shared_ptr<EventHubImpl> replaced by another std::shared_ptr);
# - with --non-reachable-types, also the public types that abidiff does not count as reached
#   (EventHubImpl::InnerHandler_t, File::Time, the enumerations). Here changes of standard-library
#   types by themselves are not reported (abi_compare.suppr): which of them a build describes
#   depends on the optimisation and on what the sources use internally.
# abidiff's exit code is a bit field (1 error, 2 usage error, 4 change, 8 incompatible change):
# any bit set fails.
foreach(pass IN ITEMS reachable all)
  if(pass STREQUAL "reachable")
    set(options)
  else()
    set(options --non-reachable-types --suppressions ${COMPARE_SUPPRESSIONS})
  endif()
  execute_process(
    COMMAND ${ABIDIFF} --harmless --leaf-changes-only ${options} ${BASELINE} ${current}
    RESULT_VARIABLE abidiff_result OUTPUT_VARIABLE report ERROR_VARIABLE report)
  if(NOT abidiff_result EQUAL 0)
    message("${report}")
    message(FATAL_ERROR "The binary interface of ${LIBRARY} differs from ${BASELINE} (abidiff "
      "exit code ${abidiff_result}, report above). If the change is on purpose, build the target "
      "update_abi_baseline and commit the description.")
  endif()
endforeach()
message(STATUS "The binary interface matches ${BASELINE}")
