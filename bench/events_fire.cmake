# Boost.Signals2 (the peer) is header-only; nothing to link beyond the threads the library uses.
find_package(Boost REQUIRED)
list(APPEND QUMA_BENCH_EXTRA_LIBS Boost::headers)
