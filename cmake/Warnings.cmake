# Project-wide compile settings, applied through the interface target velomar_options.
add_library(velomar_options INTERFACE)
if(MSVC)
  target_compile_options(velomar_options INTERFACE /W4 /permissive- /utf-8 /EHsc)
else()
  target_compile_options(velomar_options INTERFACE -Wall -Wextra)
endif()
if(WIN32)
  # Wide printf functions follow the Windows convention everywhere: %s is a wide string,
  # %S a narrow one, %I64d a 64-bit integer. MinGW's C99 printf would read them differently.
  target_compile_definitions(velomar_options INTERFACE
    UNICODE _UNICODE NOMINMAX WIN32_LEAN_AND_MEAN _WIN32_WINNT=0x0A00 NTDDI_VERSION=0x0A000000
    __USE_MINGW_ANSI_STDIO=0)
endif()
