#!/usr/bin/env bash
# Proves that clang's lock checks bite on the POSIX backend and on the
# module: compiles tests/lock_analysis/rules_bite.cpp and
# module_locks_bite.cpp, whose marked lines each break a locking rule, with
# -Wthread-safety -Werror and clang's -verify, which fails unless exactly the
# marked lines are rejected. One -fsyntax-only run per file.
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
for file in rules_bite.cpp module_locks_bite.cpp; do
  clang++ -std=c++17 -fsyntax-only -Wthread-safety -Werror -Xclang -verify \
    -I "$root" "$root/tests/lock_analysis/$file"
  echo "lock analysis: every broken rule of tests/lock_analysis/$file was rejected"
done
