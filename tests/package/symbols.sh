#!/bin/sh
# Every dynamic symbol the shared library defines belongs to the quma namespace (or is a
# std::hash/std::formatter specialisation for one of its types): nothing internal leaks.
set -eu
syms=$(nm -D --defined-only --format=just-symbols "$1")
count=$(printf '%s\n' "$syms" | grep -c .)
leaks=$(printf '%s\n' "$syms" | grep -vE '4quma' || true)
if [ -n "$leaks" ]; then
  printf 'exported symbols outside the public API:\n%s\n' "$leaks" | head -n 20
  exit 1
fi
[ "$count" -ge 100 ] || { echo "only $count symbols exported: the public API is missing"; exit 1; }
echo "$count exported symbols, all public"
