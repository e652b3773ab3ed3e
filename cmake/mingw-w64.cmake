# Cross-builds for 64-bit Windows with Debian's mingw-w64, linked statically: one .exe runs on a
# bare Windows 10 or later.
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR x86_64)

set(CMAKE_CXX_COMPILER x86_64-w64-mingw32-g++-posix)
set(CMAKE_C_COMPILER x86_64-w64-mingw32-gcc-posix)
set(CMAKE_RC_COMPILER x86_64-w64-mingw32-windres)

set(CMAKE_FIND_ROOT_PATH /usr/x86_64-w64-mingw32)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)

set(CMAKE_EXE_LINKER_FLAGS_INIT "-static")

# The tests run under Wine. Not by Debian's script "wine", which looks for a 32-bit Wine first.
find_program(QZ_WINE NAMES wine64 wine PATHS /usr/lib/wine)
if(QZ_WINE)
  set(CMAKE_CROSSCOMPILING_EMULATOR ${QZ_WINE})
endif()
