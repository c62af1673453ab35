# Describes the binary interface of the built library with abidw and compares the description
# with the one kept in the repository through abidiff, or writes the kept one anew when UPDATE is
# set.
#
# The description covers the exported functions and variables and every type the public headers
# (HEADERS_DIR) define, reachable from an exported function or not: a class that callers allocate
# or derive from, such as BrowserEvent, may have no out-of-line function of its own. Types of other
# headers are kept as declarations only. Source locations, the compilation folder and the
# library's path are left out, and the source folder is cut from the translation units' names, so
# that the description is the same in any build folder on any machine.
set(current "${LIBRARY}.abi.xml")
execute_process(
  COMMAND ${ABIDW} --headers-dir ${HEADERS_DIR} --drop-private-types --load-all-types
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

# --non-reachable-types: the public types no exported function reaches count as well.
# --harmless: changes that abidiff deems harmless (an added enumerator, a changed access) are
# reported too, so that the interface changes only on purpose.
# --leaf-changes-only: each changed type is reported by itself, not only along the paths from the
# exported functions to it. Those paths often lead through standard-library templates
# (std::shared_ptr<BrowserEvent>), whose own changes the suppressions leave out; a virtual moved in
# EventParam would otherwise go unreported.
# abidiff's exit code is a bit field (1 error, 2 usage error, 4 change, 8 incompatible change):
# any bit set fails.
execute_process(
  COMMAND ${ABIDIFF} --non-reachable-types --harmless --leaf-changes-only
    --suppressions ${COMPARE_SUPPRESSIONS} ${BASELINE} ${current}
  RESULT_VARIABLE abidiff_result OUTPUT_VARIABLE report ERROR_VARIABLE report)
if(NOT abidiff_result EQUAL 0)
  message("${report}")
  message(FATAL_ERROR "The binary interface of ${LIBRARY} differs from ${BASELINE} (abidiff exit "
    "code ${abidiff_result}, report above). If the change is on purpose, build the target "
    "update_abi_baseline and commit the description.")
endif()
message(STATUS "The binary interface matches ${BASELINE}")
