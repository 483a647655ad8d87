# vyn_add_test(NAME SOURCES a_test.cpp ... LIBS lib ...)
# Builds one GoogleTest program into test-bin/ and registers it with CTest.
# Tests find the shipped home through VYN_TEST_HOME and the programs through VYN_BIN_DIR.
function(vyn_add_test name)
  cmake_parse_arguments(T "" "TIMEOUT" "SOURCES;LIBS" ${ARGN})
  add_executable(${name} ${T_SOURCES} ${CMAKE_SOURCE_DIR}/tests/test_env.cpp)
  target_compile_definitions(${name} PRIVATE VYN_BUILD_HOME="${VYN_HOME_DIR}"
    VYN_BUILD_BIN="${CMAKE_BINARY_DIR}/bin" VYN_SOURCE_ROOT="${CMAKE_SOURCE_DIR}")
  target_link_libraries(${name} PRIVATE ${T_LIBS} GTest::gtest GTest::gtest_main Threads::Threads)
  set_target_properties(${name} PROPERTIES RUNTIME_OUTPUT_DIRECTORY ${VYN_TEST_BIN_DIR})
  if(NOT T_TIMEOUT)
    set(T_TIMEOUT 120)
  endif()
  add_test(NAME ${name} COMMAND ${name})
  set_tests_properties(${name} PROPERTIES TIMEOUT ${T_TIMEOUT}
    ENVIRONMENT "VYN_TEST_HOME=${VYN_HOME_DIR};VYN_BIN_DIR=${CMAKE_BINARY_DIR}/bin;VYN_SOURCE_DIR=${CMAKE_SOURCE_DIR}")
endfunction()
