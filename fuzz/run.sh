#!/bin/sh
# Runs every fuzz target for a bounded time and fails on any finding.
#
#   fuzz/run.sh <seconds-per-target> [<folder with the fuzz_* programs>]
#
# The folder defaults to build/fuzz/fuzz (the fuzz preset's). Each target starts from its seed
# corpus in fuzz/corpus/<name>/ (read only) plus a scratch corpus; a crash, a failed property,
# a leak, a sanitizer report or a time-out stops that target, its input is kept in
# <folder>/artifacts/, and the script ends with status 1 after running the others.
set -u

if [ $# -lt 1 ]; then
  echo "usage: $0 <seconds-per-target> [<folder with the fuzz_* programs>]" >&2
  exit 2
fi
seconds=$1
here=$(cd "$(dirname "$0")" && pwd)
folder=${2:-$here/../build/fuzz/fuzz}
folder=$(cd "$folder" && pwd) || exit 2
artifacts=$folder/artifacts
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
trap 'exit 130' INT TERM
mkdir -p "$artifacts"

export ASAN_OPTIONS="${ASAN_OPTIONS:-detect_leaks=1:abort_on_error=1:strict_string_checks=1}"
export UBSAN_OPTIONS="${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}"

found=0
failed=""
ran=0
printf '%-16s %12s %10s  %s\n' target executions "per second" result
for program in "$folder"/fuzz_*; do
  [ -x "$program" ] || continue
  name=${program##*/fuzz_}
  ran=$((ran + 1))
  mkdir -p "$scratch/$name"
  log=$scratch/$name.log
  seeds=$here/corpus/$name
  [ -d "$seeds" ] || seeds=""
  "$program" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 -print_final_stats=1 \
    -artifact_prefix="$artifacts/$name-" "$scratch/$name" $seeds >"$log" 2>&1
  status=$?
  executions=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log" | tail -n 1)
  rate=$(sed -n 's/^stat::average_exec_per_sec: *//p' "$log" | tail -n 1)
  if [ $status -eq 0 ]; then
    result=ok
  else
    result="FINDING (status $status)"
    found=1
    failed="$failed $name"
  fi
  printf '%-16s %12s %10s  %s\n' "$name" "${executions:-?}" "${rate:-?}" "$result"
  if [ $status -ne 0 ]; then
    tail -n 40 "$log" | sed "s/^/  [$name] /"
  fi
done

if [ $ran -eq 0 ]; then
  echo "no fuzz_* programs in $folder: build them first (cmake --build --preset fuzz)" >&2
  exit 2
fi
if [ $found -ne 0 ]; then
  echo "fuzzing found problems in:$failed (inputs kept in $artifacts)" >&2
  exit 1
fi
echo "no findings in $ran targets"
