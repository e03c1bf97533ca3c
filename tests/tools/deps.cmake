# zlib is the oracle for the crc32 sub-command.
find_package(ZLIB REQUIRED)
list(APPEND QUMA_TEST_EXTRA_LIBS ZLIB::ZLIB)
