# GoogleTest and the helper that turns a test executable into a CTest test.
if(MSVC)
  find_package(GTest REQUIRED)
else()
  set(VELOMAR_GTEST_SOURCE_DIR /usr/src/googletest CACHE PATH "GoogleTest sources (Debian's googletest package)")
  set(BUILD_GMOCK OFF CACHE BOOL "" FORCE)
  set(INSTALL_GTEST OFF CACHE BOOL "" FORCE)
  set(gtest_force_shared_crt ON CACHE BOOL "" FORCE)
  add_subdirectory(${VELOMAR_GTEST_SOURCE_DIR} ${CMAKE_BINARY_DIR}/_deps/googletest EXCLUDE_FROM_ALL)
  if(NOT TARGET GTest::gtest_main)
    add_library(GTest::gtest ALIAS gtest)
    add_library(GTest::gtest_main ALIAS gtest_main)
  endif()
endif()

# velomar_add_test(NAME <name> SOURCES <files...> [LIBRARIES <libs...>]
#                  [RESOURCE_LOCK <locks...>] [TIMEOUT <seconds>] [LABELS <labels...>])
# One CTest test per executable. Under a cross build the test needs the Wine prefix fixture.
# Tests that share a machine-wide name (a service, a pipe, a registry key) take a RESOURCE_LOCK
# so that `ctest -j` never runs them together.
function(velomar_add_test)
  cmake_parse_arguments(T "" "NAME;TIMEOUT" "SOURCES;LIBRARIES;RESOURCE_LOCK;LABELS" ${ARGN})
  add_executable(${T_NAME} ${T_SOURCES})
  target_link_libraries(${T_NAME} PRIVATE ${T_LIBRARIES} GTest::gtest_main velomar_options)
  target_include_directories(${T_NAME} PRIVATE ${PROJECT_SOURCE_DIR})
  add_test(NAME ${T_NAME} COMMAND ${T_NAME} --gtest_color=no)
  if(NOT T_TIMEOUT)
    set(T_TIMEOUT 300)
  endif()
  # Judged by what the program printed, not only by its exit code: a program that dies without its
  # summary (Wine can end a process with a zero exit code) fails, as does any sanitizer report or
  # a death of the prefix's Wine server.
  set_tests_properties(${T_NAME} PROPERTIES TIMEOUT ${T_TIMEOUT}
    PASS_REGULAR_EXPRESSION "\\[  PASSED  \\]"
    FAIL_REGULAR_EXPRESSION "\\[  FAILED  \\];died of an unhandled exception;Wine server .pid [0-9]+. ended;ERROR: [A-Za-z]+Sanitizer;runtime error:")
  if(T_RESOURCE_LOCK)
    set_tests_properties(${T_NAME} PROPERTIES RESOURCE_LOCK "${T_RESOURCE_LOCK}")
  endif()
  if(T_LABELS)
    set_tests_properties(${T_NAME} PROPERTIES LABELS "${T_LABELS}")
  endif()
  if(CMAKE_CROSSCOMPILING AND NOT MSVC)
    set_tests_properties(${T_NAME} PROPERTIES FIXTURES_REQUIRED wine_prefix)
  endif()
endfunction()
