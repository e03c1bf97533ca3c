# A shared library that the tests load with dlopen after start-up: it registers a unit of its own
# when it is loaded and frees it when it is unloaded. It needs the library as a shared object, so
# that both modules see one registry.
if(BUILD_SHARED_LIBS)
  add_library(quma_test_init_plugin MODULE ${CMAKE_CURRENT_LIST_DIR}/plugin/InitTestPlugin.cpp)
  target_link_libraries(quma_test_init_plugin PRIVATE QUMALib::Utils)
  # Without unique symbols the loader may really unload it (see docs/init.md).
  target_compile_options(quma_test_init_plugin PRIVATE -fno-gnu-unique)
  list(APPEND QUMA_TEST_EXTRA_LIBS ${CMAKE_DL_LIBS})
  cmake_language(DEFER CALL add_dependencies quma_test_init quma_test_init_plugin)
  cmake_language(DEFER CALL target_compile_definitions quma_test_init PRIVATE
                 "QUMA_TEST_INIT_PLUGIN=\"$<TARGET_FILE:quma_test_init_plugin>\"")
endif()
