# All programs have the project's version; the day is that of its release.
set(QZ_RELEASED 2026-11-23)

# qz_version(TARGET DESCRIPTION): the version for the program's sources, and on Windows in the
# properties of its file.
function(qz_version target description)
  target_compile_definitions(${target} PRIVATE
    QZ_VERSION="${PROJECT_VERSION}" QZ_RELEASED="${QZ_RELEASED}")
  if(WIN32)
    configure_file(${PROJECT_SOURCE_DIR}/cmake/version.rc.in ${target}-version.rc @ONLY)
    target_sources(${target} PRIVATE ${CMAKE_CURRENT_BINARY_DIR}/${target}-version.rc)
  endif()
endfunction()

# What runs without a build says the same.
foreach(said "python/qz640.py:__version__ = \"${PROJECT_VERSION}\""
             "wireshark/qz640.lua:version = \"${PROJECT_VERSION}\"")
  string(REGEX MATCH "^([^:]*):(.*)$" unused "${said}")
  set(file ${PROJECT_SOURCE_DIR}/${CMAKE_MATCH_1})
  set(words "${CMAKE_MATCH_2}")
  set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${file})
  file(STRINGS ${file} lines REGEX "version")
  string(FIND "${lines}" "${words}" found)
  if(found EQUAL -1)
    message(FATAL_ERROR "${file} must say: ${words}")
  endif()
endforeach()
