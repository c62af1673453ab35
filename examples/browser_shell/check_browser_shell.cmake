# Runs browser_shell briefly and checks it: exit status 0, the exact counts of its summary, the
# start page's size and MD5 against CMake's own reading of the file, and the usage text of -h.
#
#   cmake -DSHELL=<program> -DEMULATOR=<emulator, '|' between its words> -DSTART_PAGE=<file>
#         -DRUN_TIME=<seconds> -DEVENTS=<events per module> -DTASKS=<worker tasks>
#         -P check_browser_shell.cmake
string(REPLACE "|" ";" emulator "${EMULATOR}")

function(fail why)
  message(FATAL_ERROR "${why}\n--- standard output ---\n${out}\n--- standard error ---\n${err}")
endfunction()

# An exact line of the summary.
function(expect_line line)
  string(FIND "${out}" "\n${line}\n" position)
  if(position EQUAL -1)
    fail("missing summary line: ${line}")
  endif()
endfunction()

function(expect_match pattern)
  if(NOT out MATCHES "${pattern}")
    fail("no summary line matches: ${pattern}")
  endif()
endfunction()

# --- A short run -------------------------------------------------------------------------------
execute_process(
  COMMAND ${emulator} ${SHELL} --url=file://${START_PAGE} --run-time=${RUN_TIME}
          --events=${EVENTS} --tasks=${TASKS} --heartbeat=200
  RESULT_VARIABLE status OUTPUT_VARIABLE out ERROR_VARIABLE err TIMEOUT 200)
message("${out}")
if(NOT status STREQUAL "0")
  fail("browser_shell exited with status ${status}")
endif()

# Every fourth event of a module is a broadcast that both other modules handle; the rest go to
# one neighbour. The page takes one task on each named thread.
math(EXPR broadcasts "${EVENTS} / 4")
math(EXPR per_module "${EVENTS} + ${broadcasts}")
math(EXPR handled "3 * ${per_module}")
math(EXPR sent "3 * ${EVENTS}")
math(EXPR tasks "${TASKS} + 3")
set(module_counts "${per_module}/${per_module}")

expect_line("events sent: ui ${EVENTS}, hbbtv ${EVENTS}, media ${EVENTS}, total ${sent}")
expect_line("events handled: ui ${module_counts}, hbbtv ${module_counts}, media ${module_counts}, total ${handled}/${handled}, bad 0")
expect_line("tasks run: main 1/1, foreground 1/1, background 1/1, workers ${TASKS}/${TASKS}, total ${tasks}/${tasks}, on a wrong thread 0, wrong results 0")
expect_match("\nworker threads used: [12]\n")
expect_match("\nevent latency: median [0-9]+\\.[0-9]+ ms, worst [0-9]+\\.[0-9]+ ms\n")
expect_match("\ntask latency: median [0-9]+\\.[0-9]+ ms, worst [0-9]+\\.[0-9]+ ms\n")
expect_match("\ntimer expiries: heartbeat [1-9][0-9]*, end-of-run 1\n")
expect_match("\nbacklog sampler: [1-9][0-9]* samples, peak [0-9]+ in flight, paused 1, resumed 1\n")
expect_line("  rendered with software backend, presented yes")
expect_line("result: OK")

file(SIZE "${START_PAGE}" page_size)
file(MD5 "${START_PAGE}" page_md5)
expect_match("\n  size ${page_size} bytes, CRC-32 0x[0-9A-F]+, MD5 ${page_md5}\n")

# --- The usage text ----------------------------------------------------------------------------
execute_process(COMMAND ${emulator} ${SHELL} -h
  RESULT_VARIABLE status OUTPUT_VARIABLE out ERROR_VARIABLE err TIMEOUT 60)
if(NOT status STREQUAL "0")
  fail("browser_shell -h exited with status ${status}")
endif()
foreach(option "-u# or --url=#" "-g or --hw-gles" "-r# or --run-time=#" "-e# or --events=#")
  string(FIND "${err}" "${option}" position)
  if(position EQUAL -1)
    fail("the usage text lacks ${option}")
  endif()
endforeach()
