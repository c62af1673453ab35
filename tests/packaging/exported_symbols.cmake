# Compares the demangled dynamic symbols that the library defines with the list kept in the
# repository (one per line, sorted), or writes the list anew when UPDATE is set.
#
# Instantiations of standard-library templates (std::deque<our type>::..., their typeinfo and
# vtables) are left out: every user of the same templates emits them as weak symbols, they are
# not part of the library's interface, and which of them appear depends on the optimisation.
# What counts is the entity's own name, without template arguments and without the return type
# in front: a member of ours that converts to or returns a standard type (operator std::string,
# std::vector<T> convertToVectorT<T>) is ours, a standard template returning a type of ours is
# not.
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
    set(name "${CMAKE_MATCH_1}")
    string(REGEX REPLACE "^(typeinfo name for|typeinfo for|vtable for|VTT for|guard variable for) "
      "" entity "${name}")
    string(REGEX REPLACE "\\(.*$" "" entity "${entity}")
    while(entity MATCHES "<[^<>]*>")
      string(REGEX REPLACE "<[^<>]*>" "" entity "${entity}")
    endwhile()
    string(REGEX REPLACE "<.*$" "" entity "${entity}")
    string(REGEX REPLACE "::operator .*$" "::operator" entity "${entity}")
    string(REGEX REPLACE "^.* " "" entity "${entity}")
    if(NOT entity MATCHES "^(std|__gnu_cxx)::")
      list(APPEND symbols "${name}")
    endif()
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
