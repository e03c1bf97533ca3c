# Poco is the yardstick for the HTTP date writer and reader.
list(APPEND QUMA_BENCH_EXTRA_LIBS PocoFoundation)
