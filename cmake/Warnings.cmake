# Project-wide compile settings, applied through the interface target velomar_options.
add_library(velomar_options INTERFACE)
if(MSVC)
  target_compile_options(velomar_options INTERFACE /W4 /permissive- /utf-8 /EHsc)
else()
  target_compile_options(velomar_options INTERFACE -Wall -Wextra)
endif()
if(CMAKE_UNITY_BUILD AND CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
  # In a unity build (the mingw preset) every source is #included into a generated file, and g++
  # then takes each type defined in a source for one defined in a header: a test fixture or helper
  # in an anonymous namespace, used as a base or member of a type of that same source, would be
  # reported as a type with internal linkage leaking out of its unit, which it is not.
  target_compile_options(velomar_options INTERFACE -Wno-subobject-linkage)
endif()
if(CMAKE_CXX_COMPILER_ID MATCHES "Clang")
  # The locking rules written on the lock wrappers and the members they guard (see
  # common/ThreadSafety.h) are checked by the compiler.
  target_compile_options(velomar_options INTERFACE -Wthread-safety -Wthread-safety-beta)
  # Names reserved to the implementation (leading underscore and capital, double underscore).
  target_compile_options(velomar_options INTERFACE -Wreserved-identifier)
endif()
option(VELOMAR_SANITIZE "Host build: AddressSanitizer and UndefinedBehaviorSanitizer, any report fatal" OFF)
# Code loaded by a program that is not instrumented (the FreeRDP client add-in) must not carry the
# sanitizers' runtimes: such targets set the property VELOMAR_NO_SANITIZE.
if(VELOMAR_SANITIZE AND NOT WIN32)
  set(velomar_sanitized $<NOT:$<BOOL:$<TARGET_PROPERTY:VELOMAR_NO_SANITIZE>>>)
  target_compile_options(velomar_options INTERFACE
    $<${velomar_sanitized}:-fsanitize=address,undefined -fno-sanitize-recover=all -fno-omit-frame-pointer>)
  target_link_options(velomar_options INTERFACE $<${velomar_sanitized}:-fsanitize=address,undefined>)
endif()
option(VELOMAR_WARNINGS_AS_ERRORS "Fail the build on any warning in the project's own code" OFF)
if(VELOMAR_WARNINGS_AS_ERRORS)
  target_compile_options(velomar_options INTERFACE $<IF:$<BOOL:${MSVC}>,/WX,-Werror>)
endif()
if(WIN32)
  # Wide printf functions follow the Windows convention everywhere: %s is a wide string,
  # %S a narrow one, %I64d a 64-bit integer. MinGW's C99 printf would read them differently.
  target_compile_definitions(velomar_options INTERFACE
    UNICODE _UNICODE NOMINMAX WIN32_LEAN_AND_MEAN _WIN32_WINNT=0x0A00 NTDDI_VERSION=0x0A000000
    __USE_MINGW_ANSI_STDIO=0)
endif()
