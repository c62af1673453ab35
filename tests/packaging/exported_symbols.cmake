# Compares the demangled dynamic symbols that the library defines with the list kept in the
# repository (one per line, sorted), or writes the list anew when UPDATE is set.
#
# The list is the whole dynamic symbol table: instantiations of standard-library templates that
# the library uses (std::vector<our type>::reserve, their typeinfo and vtables) must not show up
# there, since which of them the compiler emits changes with its inlining and the target; the
# library's version script keeps them inside.
execute_process(COMMAND ${NM} -D --defined-only -C ${LIBRARY}
  OUTPUT_VARIABLE nm_output RESULT_VARIABLE nm_result)
if(NOT nm_result EQUAL 0)
  message(FATAL_ERROR "${NM} failed on ${LIBRARY}")
endif()

string(REPLACE "\n" ";" nm_lines "${nm_output}")
set(symbols)
foreach(line IN LISTS nm_lines)
  # "<address> <type> <name>": the name may hold blanks.
  if(line MATCHES "^[0-9a-fA-F]+ [A-Za-z] (.+)$")
    list(APPEND symbols "${CMAKE_MATCH_1}")
  endif()
endforeach()
list(REMOVE_DUPLICATES symbols)
list(SORT symbols)
string(REPLACE ";" "\n" actual "${symbols}")
set(actual "${actual}\n")

if(UPDATE)
  file(WRITE ${SYMBOL_LIST} "${actual}")
  message(STATUS "Wrote ${SYMBOL_LIST}")
  return()
endif()

file(READ ${SYMBOL_LIST} expected)
if(NOT actual STREQUAL expected)
  file(WRITE "${LIBRARY}.symbols" "${actual}")
  execute_process(COMMAND diff -u ${SYMBOL_LIST} "${LIBRARY}.symbols")
  message(FATAL_ERROR "The exported interface differs from ${SYMBOL_LIST} (diff above). If the "
    "change is on purpose, build the target update_exported_symbols and commit the list.")
endif()
message(STATUS "The exported interface matches ${SYMBOL_LIST}")
