# Expat (a streaming XML parser) and PCRE2's JIT scanning the same text are the yardsticks.
list(APPEND QUMA_BENCH_EXTRA_LIBS expat pcre2-16)
