# Cross build for 64-bit Windows with MinGW-w64 (posix threads), linked statically so the
# executables run on a bare Windows host. Tests run under Wine through the emulator that
# cmake/WineHarness.cmake sets up.
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR x86_64)

set(VELOMAR_MINGW_PREFIX x86_64-w64-mingw32)
find_program(CMAKE_C_COMPILER NAMES ${VELOMAR_MINGW_PREFIX}-gcc-posix REQUIRED)
find_program(CMAKE_CXX_COMPILER NAMES ${VELOMAR_MINGW_PREFIX}-g++-posix REQUIRED)
find_program(CMAKE_RC_COMPILER NAMES ${VELOMAR_MINGW_PREFIX}-windres)

set(CMAKE_FIND_ROOT_PATH /usr/${VELOMAR_MINGW_PREFIX})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)

set(CMAKE_EXE_LINKER_FLAGS_INIT "-static -static-libgcc -static-libstdc++")
set(CMAKE_SHARED_LINKER_FLAGS_INIT "-static -static-libgcc -static-libstdc++")
