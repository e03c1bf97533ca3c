# Peers measured in the same run: zlib (crc32), libuuid (unparse), Boost.Uuid (header-only
# string_generator) and Poco's Base32 streams.
list(APPEND QUMA_BENCH_EXTRA_LIBS z uuid PocoFoundation)
