#!/usr/bin/env bash
# Builds the coverage preset, runs the suite and reports line and branch coverage of the library's
# sources with gcovr. Fails below 95% of lines or 85% of branches.
#
# Branches that only the compiler's exception handling takes (the unwinding paths of calls that
# could throw) and branches of code gcov marks unreachable are left out of the branch count:
# they are not decisions of the library's code.
set -euo pipefail
cd "$(dirname "$0")/.."

cmake --workflow --preset coverage
cd build/coverage
gcovr --root ../.. --filter '.*/src/base_utils/' \
  --gcov-ignore-parse-errors \
  --exclude-throw-branches --exclude-unreachable-branches \
  --txt coverage.txt --html-details coverage.html \
  --print-summary --fail-under-line 95 --fail-under-branch 85 .
echo "Per-file report: build/coverage/coverage.txt, build/coverage/coverage.html"
