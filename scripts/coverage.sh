#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Runs the tests on a build that counts branches, and prints how many of the library's branches they
# take, file by file, and each line with a branch that none takes. Branches that only exceptions take are
# not counted. A process that aborts, as tests of fatal reports do, leaves no counts.
#
# usage: scripts/coverage.sh
set -euo pipefail
cd "$(dirname "$0")/.."

build=build/coverage
# Only the library is instrumented. One test of qrnmon fills a disk, which counting would not survive.
flags="--coverage -fprofile-update=atomic -fprofile-filter-files=.*src/lib/qrn/.*"

./scripts/setup.sh build test coverage
cmake -S . -B $build -G Ninja -DCMAKE_BUILD_TYPE=Debug -DQRN_BUILD_EXAMPLES=OFF \
    -DCMAKE_C_FLAGS="$flags" -DCMAKE_CXX_FLAGS="$flags" \
    -DCMAKE_EXE_LINKER_FLAGS=-Wl,-u,__gcov_dump >/dev/null # for a test that ends without storing its counts
cmake --build $build --parallel "$(nproc)" >/dev/null
find $build -name '*.gcda' -delete
ctest --test-dir $build --parallel "$(nproc)" --output-on-failure --exclude-regex "full_disk|^sched_test" \
    >$build/test.log ||
    { tail -n 50 $build/test.log >&2; exit 1; }

# The explorer's own build of the sources has other branches, so it is left out.
gcovr $build/src --root . --object-directory $build --filter src/lib/qrn/ --branches --exclude-throw-branches \
    --exclude-unreachable-branches --json $build/coverage.json --txt $build/coverage.txt
cat $build/coverage.txt
echo "Lines with a branch that no test takes:"
python3 - $build/coverage.json <<'END'
import json, sys

taken = missed = of_checks = 0
for file in json.load(open(sys.argv[1]))["files"]:
    source = open(file["file"]).read().splitlines()
    for line in file["lines"]:
        branches = [b["count"] > 0 for b in line["branches"] if not b["throw"]]
        text = source[line["line_number"] - 1].strip()
        taken += branches.count(True)
        missed += branches.count(False)
        if "KFX_ASSERT(" in text:
            of_checks += branches.count(False)
        if not all(branches):
            print(f'{file["file"]}:{line["line_number"]}: {text}')
print(f"branches: {taken} of {taken + missed}, {taken / (taken + missed):.1%}")
reachable = taken + missed - of_checks
print(f"without those of fatal checks that return: {taken} of {reachable}, {taken / reachable:.1%}")
END
