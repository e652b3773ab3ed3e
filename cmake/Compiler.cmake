# What every target of the project is compiled with.

set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)

if(NOT CMAKE_BUILD_TYPE)
  set(CMAKE_BUILD_TYPE Release)
endif()

find_package(Threads REQUIRED)

find_program(QZ_CCACHE_PROGRAM ccache)
set(missing)
if(NOT QZ_CCACHE_PROGRAM)
  set(missing ccache)
endif()
qz_decide(QZ_CCACHE "Compiler cache" "${missing}" use_ccache)
if(use_ccache AND NOT CMAKE_CXX_COMPILER_LAUNCHER)
  # Without this leave ccache keeps nothing that a precompiled header goes into.
  set(CMAKE_CXX_COMPILER_LAUNCHER
    ${CMAKE_COMMAND} -E env CCACHE_SLOPPINESS=pch_defines,time_macros ${QZ_CCACHE_PROGRAM})
endif()

add_library(qz_options INTERFACE)
target_include_directories(qz_options INTERFACE ${CMAKE_SOURCE_DIR}/src)
target_link_libraries(qz_options INTERFACE Threads::Threads)
if(WIN32)
  # Windows 10, in every file: a precompiled header fits only where it was made.
  target_compile_definitions(qz_options INTERFACE _WIN32_WINNT=0x0A00)
endif()

if(MSVC)
  target_compile_options(qz_options INTERFACE /W4 /utf-8 /fp:precise)
  target_compile_definitions(qz_options INTERFACE NOMINMAX)
else()
  # Audio samples are part of the wire format: every single-precision step must be rounded by
  # itself, so no fused multiply-add and no relaxed arithmetic.
  target_compile_options(qz_options INTERFACE -ffp-contract=off -fno-fast-math
    -Wall -Wextra -Wpedantic -Wconversion -Wshadow -Wnon-virtual-dtor)
  if(MINGW)
    # GCC 12 sees std::wstring(L"") read past its literal, inside MinGW's own <wchar.h>; it keeps
    # quiet about system headers, but not once they come in a precompiled one. The builds for Linux
    # keep both warnings.
    target_compile_options(qz_options INTERFACE -Wno-array-bounds -Wno-stringop-overread)
  endif()
  if(CMAKE_UNITY_BUILD AND CMAKE_CXX_COMPILER_ID STREQUAL GNU)
    # Files that are compiled together count as headers here, whose unnamed namespaces would differ
    # from one file that includes them to the next. The debug build goes file by file, and has it.
    target_compile_options(qz_options INTERFACE -Wno-subobject-linkage)
  endif()
  if(CMAKE_CXX_COMPILER_ID STREQUAL GNU AND NOT QZ_WERROR)
    # Fully optimised, GCC 12 sees "text" + std::to_string(n) copy a string onto itself (GCC bug
    # 105651), and those who only want to run the program read that. The builds that are tested keep
    # the warning, as an error.
    target_compile_options(qz_options INTERFACE -Wno-restrict)
  endif()
  if(QZ_WERROR)
    target_compile_options(qz_options INTERFACE -Werror)
  endif()
endif()

if(QZ_SANITIZE)
  target_compile_options(qz_options INTERFACE -fsanitize=${QZ_SANITIZE} -fno-omit-frame-pointer
    -fno-sanitize-recover=all)
  if(CMAKE_CXX_COMPILER_ID STREQUAL GNU)
    # With the checks between its lines GCC 12 takes parts of its own <regex> for uninitialised (GCC
    # bug 105562). The builds without sanitizers keep the warning.
    target_compile_options(qz_options INTERFACE -Wno-maybe-uninitialized)
  endif()
  target_compile_definitions(qz_options INTERFACE QZ_SANITIZED)  # compilers have a macro each
  target_link_options(qz_options INTERFACE -fsanitize=${QZ_SANITIZE})
endif()
