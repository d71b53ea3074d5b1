# libFuzzer targets: every decoder of outside input has one, next to its tests under tests/.
# They are built only with VELOMAR_FUZZ=ON (the `fuzz` preset: clang on the build host), where
# every library is compiled with coverage instrumentation and the address and undefined-behaviour
# sanitizers, so that the fuzzers see into the code under test and not only into their own file.
# scripts/test.sh runs each of them for a while; a crash fails the run.
if(VELOMAR_FUZZ)
  if(WIN32 OR NOT CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
    message(FATAL_ERROR "VELOMAR_FUZZ needs clang on the build host (use the `fuzz` preset)")
  endif()
  add_compile_options(-fsanitize=fuzzer-no-link,address,undefined -fno-sanitize-recover=undefined)
  add_link_options(-fsanitize=address,undefined)
  # Builds every fuzz target (the `fuzz` build preset builds only this).
  add_custom_target(velomar_fuzzers)
endif()

# velomar_add_fuzz(NAME <name> SOURCES <files...> [LIBRARIES <libs...>])
# Nothing without VELOMAR_FUZZ. The executables are named *_fuzz; scripts/test.sh finds them so.
function(velomar_add_fuzz)
  if(NOT VELOMAR_FUZZ)
    return()
  endif()
  cmake_parse_arguments(F "" "NAME" "SOURCES;LIBRARIES" ${ARGN})
  add_executable(${F_NAME} ${F_SOURCES})
  target_link_libraries(${F_NAME} PRIVATE ${F_LIBRARIES} velomar_options)
  target_include_directories(${F_NAME} PRIVATE ${PROJECT_SOURCE_DIR})
  target_link_options(${F_NAME} PRIVATE -fsanitize=fuzzer)
  add_dependencies(velomar_fuzzers ${F_NAME})
endfunction()
