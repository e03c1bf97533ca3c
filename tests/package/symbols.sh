#!/bin/sh
# Every dynamic symbol the shared library defines belongs to the quma namespace (or is a
# std::hash/std::formatter specialisation for one of its types): nothing internal leaks; and every
# public header declares its API with default visibility.
set -eu
syms=$(nm -D --defined-only --format=just-symbols "$1")
count=$(printf '%s\n' "$syms" | grep -c .)
leaks=$(printf '%s\n' "$syms" | grep -vE '4quma' || true)
if [ -n "$leaks" ]; then
  printf 'exported symbols outside the public API:\n%s\n' "$leaks" | head -n 20
  exit 1
fi
[ "$count" -ge 100 ] || { echo "only $count symbols exported: the public API is missing"; exit 1; }
# Every public header opens the default-visibility region, or its symbols would be hidden.
if [ $# -ge 2 ]; then
  missing=$(grep -L 'QUMA_PUBLIC_BEGIN' "$2"/src/*/*.h | grep -v '/Export\.h$' || true)
  if [ -n "$missing" ]; then
    printf 'public headers without QUMA_PUBLIC_BEGIN:\n%s\n' "$missing"
    exit 1
  fi
fi
echo "$count exported symbols, all public"
