#!/usr/bin/env bash
# Builds the library and the benchmark programs at -O2, -O3 and -Os (one build folder per level,
# build/bench-O2 and so on), runs the checksum and foundation benchmarks of every level, and prints
# one table of ratios, each against its baseline from the same run:
#
#   tools/bench-levels.sh               # all three levels, 5 repetitions per benchmark
#   tools/bench-levels.sh O2 Os         # only these levels
#   REPETITIONS=9 PROCESSES=5 tools/bench-levels.sh
#
# Each figure is the ratio of medians (CPU time): of the repetitions within a process, then of the
# processes (PROCESSES=3 by default). A ratio marked "MISSED" fails its target; the script then
# exits with status 1. The raw results stay in each build folder as checksums.csv and
# foundation.csv.
set -euo pipefail
cd "$(dirname "$0")/.."

levels=("$@")
if [ ${#levels[@]} -eq 0 ]; then
  levels=(O2 O3 Os)
fi
repetitions=${REPETITIONS:-5}
# Each program runs in several processes: the address-space layout of one process can make a path
# of a few nanoseconds a third slower (seen on the entry points: 8.5 ns in most processes, 10 to
# 12 ns in some, with the same code), and the median over processes keeps one layout from deciding.
processes=${PROCESSES:-3}
jobs=${JOBS:-2}

build_level() {
  local level=$1 dir=build/bench-$1
  mkdir -p "$dir"
  cmake -S . -B "$dir" -DCMAKE_BUILD_TYPE=Release \
    -DCMAKE_CXX_FLAGS_RELEASE="-$level -DNDEBUG" -DCMAKE_C_FLAGS_RELEASE="-$level -DNDEBUG" \
    -DVELMORA_BUILD_BENCHMARKS=ON -DVELMORA_BUILD_TESTS=OFF -DVELMORA_BUILD_EXAMPLES=OFF \
    >"$dir/configure.log"
  cmake --build "$dir" -j "$jobs" --target bench_checksums bench_foundation >"$dir/build.log"
}

run_level() {
  local dir=build/bench-$1 program run
  for program in checksums foundation; do
    : >"$dir/$program.csv"
    for ((run = 1; run <= processes; ++run)); do
      env -u VEX_DEBUG_LEVEL "$dir/bench/bench_$program" --benchmark_repetitions="$repetitions" \
        --benchmark_report_aggregates_only=true --benchmark_format=csv \
        >>"$dir/$program.csv" 2>/dev/null
    done
  done
}

# Prints "level name median-cpu-time bytes-per-second" for every benchmark of a level: the median
# of the medians that its processes reported.
medians() {
  local level=$1
  cat "build/bench-$level/checksums.csv" "build/bench-$level/foundation.csv" |
    awk -F, -v level="$level" '
    $1 ~ /_median"$/ {
      name = $1; gsub(/"/, "", name); sub(/_median$/, "", name)
      if (!(name in count)) order[++names] = name
      n = ++count[name]; time[name, n] = $4; rate[name, n] = ($6 == "" ? 0 : $6)
    }
    function middle(array, name, n,    i, j, value, sorted) {
      for (i = 1; i <= n; ++i) {
        value = array[name, i]
        for (j = i; j > 1 && sorted[j - 1] > value; --j) sorted[j] = sorted[j - 1]
        sorted[j] = value
      }
      return n % 2 ? sorted[(n + 1) / 2] : (sorted[n / 2] + sorted[n / 2 + 1]) / 2
    }
    END {
      for (k = 1; k <= names; ++k) {
        name = order[k]
        print level, name, middle(time, name, count[name]), middle(rate, name, count[name])
      }
    }'
}

# One row per ratio: "label|target|numerator|denominator|direction"; the ratio is
# time(numerator) / time(denominator), direction ">=" or "<=" compares it with the target.
ratios() {
  echo "crc_32 vs zlib crc32|1.0|BM_Crc32_Zlib|Library/Crc32|>="
  local crc
  for crc in Crc8 Crc16 CrcModbus Crc32 Crc64Ecma Crc64We CrcXmodem CrcCcitt1d0f CrcCcittFfff \
    CrcDnp CrcKermit; do
    echo "$crc vs byte loop|4.0|SimpleLoop/$crc|Library/$crc|>="
  done
  echo "MD5 vs OpenSSL EVP|0.95|BM_Md5_OpenSslEvp|BM_Md5_Library|>="
  echo "log statement off / 1 check|1.3|BM_SuppressedLogStatement|BM_BareCheckCall|<="
  echo "print_browser_log off / 3 checks|1.3|SuppressedEntryPointLine/BrowserLog|BM_ThreeBareCheckCalls|<="
  echo "hbbtv log off / 3 checks|1.3|SuppressedEntryPointLine/HbbtvControllerLog|BM_ThreeBareCheckCalls|<="
  echo "print_browser_log off / 1 check|-|SuppressedEntryPointLine/BrowserLog|BM_BareCheckCall|-"
}

table() {
  for level in "${levels[@]}"; do medians "$level"; done |
    awk -v levels="${levels[*]}" -v rows="$(ratios)" '
    { time[$1, $2] = $3; rate[$1, $2] = $4 }
    END {
      count = split(levels, level, " ")
      header = sprintf("%-34s %7s", "ratio (median CPU time)", "target")
      for (i = 1; i <= count; ++i) header = header sprintf(" %14s", "-" level[i])
      print header
      line = sprintf("%-34s %7s", "crc_32 GB/s", "")
      for (i = 1; i <= count; ++i)
        line = line sprintf(" %14.2f", rate[level[i], "Library/Crc32"] / 1e9)
      print line
      missed = 0
      n = split(rows, row, "\n")
      for (r = 1; r <= n; ++r) {
        split(row[r], field, "|")
        line = sprintf("%-34s %7s", field[1], field[5] == "-" ? "" : field[5] field[2])
        for (i = 1; i <= count; ++i) {
          num = time[level[i], field[3]]; den = time[level[i], field[4]]
          if (num == "" || den == "" || den == 0) { line = line sprintf(" %14s", "n/a"); continue }
          value = num / den
          ok = field[5] == "-" || (field[5] == ">=" ? value >= field[2] : value <= field[2])
          if (!ok) missed = 1
          line = line sprintf(" %7.2f%-7s", value, ok ? "" : " MISSED")
        }
        print line
      }
      exit missed
    }'
}

for level in "${levels[@]}"; do
  echo "building -$level in build/bench-$level" >&2
  build_level "$level"
done
for level in "${levels[@]}"; do
  echo "running the benchmarks of -$level ($processes processes, $repetitions repetitions each)" >&2
  run_level "$level"
done
table
