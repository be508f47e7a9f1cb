# Loading and unloading the DLL needs a program that does not import it.
add_executable(load_unload ${dir}/load_unload/load_unload.cpp)
target_include_directories(load_unload PRIVATE ${CMAKE_SOURCE_DIR}/include ${CMAKE_SOURCE_DIR}/tests)
target_link_options(load_unload PRIVATE ${TORVEX_STATIC_RUNTIME})
target_link_libraries(load_unload PRIVATE torvex_shared ole32)
add_dependencies(load_unload Torvex)
add_test(NAME load_unload COMMAND load_unload)
set_tests_properties(load_unload PROPERTIES ENVIRONMENT "${TORVEX_TEST_ENV}" TIMEOUT 300)
