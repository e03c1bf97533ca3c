# zlib's crc32 and libuuid's parser/unparser serve as reference implementations.
list(APPEND QUMA_TEST_EXTRA_LIBS z uuid)
