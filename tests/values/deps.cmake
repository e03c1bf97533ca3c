# zlib's crc32, libuuid's parser/unparser and Poco's SHA-1 serve as reference implementations.
list(APPEND QUMA_TEST_EXTRA_LIBS z uuid PocoFoundation)
