#!/usr/bin/env bash
# The style, a build with the second compiler, and clang-tidy over all sources. Minutes, not seconds.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/check-style.sh
[ -f build/clang/build.ninja ] || cmake --preset clang >/dev/null
cmake --build --preset clang

tidy() { xargs -P "$(nproc)" -n 4 clang-tidy --quiet -p build/clang "$@"; }
# Fixtures have protected destructors, tests change the environment and end processes; a compared struct is taken
# for a null pointer; the sanitizers know better about leaks; no test reserves room or spares bytes.
in_tests=-concurrency-mt-unsafe,-cppcoreguidelines-virtual-class-destructor
in_tests+=,-modernize-use-nullptr,-clang-analyzer-cplusplus.NewDeleteLeaks,-performance-inefficient-vector-operation
in_tests+=,-performance-inefficient-string-concatenation,-clang-analyzer-optin.performance.Padding
sources=$(git ls-files '*.cpp' | grep -v 'Fuzz\.cpp$')
grep -v /test/ <<<"$sources" | tidy
grep /test/ <<<"$sources" | tidy --checks="$in_tests"
