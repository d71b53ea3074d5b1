# Cross build for 64-bit Windows with clang and lld, against the MinGW-w64 headers, runtime and
# libstdc++ (posix threads) that the g++ build uses; linked statically as that build is. It is the
# build that checks the locking rules (-Wthread-safety) and feeds clang-tidy.
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR x86_64)

set(VELOMAR_MINGW_PREFIX x86_64-w64-mingw32)
set(VELOMAR_CLANG_VERSION 19)
find_program(CMAKE_C_COMPILER NAMES clang-${VELOMAR_CLANG_VERSION} REQUIRED)
find_program(CMAKE_CXX_COMPILER NAMES clang++-${VELOMAR_CLANG_VERSION} REQUIRED)
set(CMAKE_C_COMPILER_TARGET ${VELOMAR_MINGW_PREFIX})
set(CMAKE_CXX_COMPILER_TARGET ${VELOMAR_MINGW_PREFIX})
find_program(CMAKE_RC_COMPILER NAMES ${VELOMAR_MINGW_PREFIX}-windres)

set(CMAKE_FIND_ROOT_PATH /usr/${VELOMAR_MINGW_PREFIX})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)

# libstdc++ was built by g++, whose thread-local variables are emulated: so are ours.
set(CMAKE_C_FLAGS_INIT "-femulated-tls")
set(CMAKE_CXX_FLAGS_INIT "-femulated-tls")
set(CMAKE_EXE_LINKER_FLAGS_INIT "-fuse-ld=lld -static")
set(CMAKE_SHARED_LINKER_FLAGS_INIT "-fuse-ld=lld -static")
# g++-posix's driver adds the threads library itself; clang's does not.
set(CMAKE_C_STANDARD_LIBRARIES "-lpthread")
set(CMAKE_CXX_STANDARD_LIBRARIES "-lpthread")
