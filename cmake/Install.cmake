# Where everything goes when it is installed, and the Debian package (scripts/release makes that and
# the others). Linux has the usual places below the prefix. Windows has one folder: everything that
# belongs together stays together there when it is copied.

if(WIN32)
  set(CMAKE_INSTALL_BINDIR .)
  set(CMAKE_INSTALL_LIBEXECDIR .)
  set(CMAKE_INSTALL_DOCDIR .)
  set(QZ_LIBEXECDIR .)
  set(QZ_PYTHONDIR python)
  set(QZ_WIRESHARKDIR wireshark)
  set(settings_example . RENAME qz640emu.exe.json.example)
endif()
include(GNUInstallDirs)
set(QZ_LICENCES "" CACHE PATH "Licences of what is compiled in, installed with the documents")
set(QZ_CONTACT "the qz640emu authors <qz640emu@localhost>" CACHE STRING
  "Who answers for the Debian package")
set(QZ_PYTHONDIR ${CMAKE_INSTALL_DATADIR}/qz640emu/python CACHE STRING "Folder of qz640.py")
set(QZ_WIRESHARKDIR ${CMAKE_INSTALL_DATADIR}/qz640emu/wireshark CACHE STRING
  "Folder of the dissector for Wireshark")
set(QZ_ZSHDIR ${CMAKE_INSTALL_DATADIR}/zsh/site-functions CACHE STRING
  "Folder of the completion for zsh")
if(NOT WIN32)
  # A folder, as nobody is to start the emulator by its name: qz640ctl does, and looks for it there.
  set(QZ_LIBEXECDIR ${CMAKE_INSTALL_LIBEXECDIR}/qz640emu)
  set(settings_example ${CMAKE_INSTALL_DOCDIR}/examples RENAME settings.json)
endif()

install(TARGETS qz640emu RUNTIME DESTINATION ${QZ_LIBEXECDIR})
install(FILES python/qz640.py DESTINATION ${QZ_PYTHONDIR})
install(FILES wireshark/qz640.lua DESTINATION ${QZ_WIRESHARKDIR})
install(FILES README.md SECURITY.md CHANGELOG.md CONTRIBUTING.md HACKING.md LICENSE
  DESTINATION ${CMAKE_INSTALL_DOCDIR})
install(DIRECTORY docs examples DESTINATION ${CMAKE_INSTALL_DOCDIR})
install(FILES packaging/qz640emu.json DESTINATION ${settings_example})
if(QZ_LICENCES)
  install(DIRECTORY ${QZ_LICENCES}/ DESTINATION ${CMAKE_INSTALL_DOCDIR}/licences)
endif()

if(TARGET qz640ctl)
  install(TARGETS qz640ctl RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
endif()

# What the commands say of themselves. A program of another system can't be asked here, and one with
# a sanitizer isn't installed.
if(TARGET qz640ctl AND NOT CMAKE_CROSSCOMPILING AND NOT QZ_SANITIZE)
  set(generated)
  # qz_generate(KIND FILE FOLDER): what "qz640ctl generate KIND" prints, as FILE.
  function(qz_generate kind file folder)
    set(path ${CMAKE_BINARY_DIR}/generated/${file})
    add_custom_command(OUTPUT ${path}
      COMMAND ${CMAKE_COMMAND} -E make_directory ${CMAKE_BINARY_DIR}/generated
      COMMAND qz640ctl generate ${kind} > ${path}
      DEPENDS qz640ctl VERBATIM)
    install(FILES ${path} DESTINATION ${folder})
    set(generated ${generated} ${path} PARENT_SCOPE)
  endfunction()
  qz_generate(man qz640ctl.1 ${CMAKE_INSTALL_MANDIR}/man1)
  qz_generate(settings-man qz640emu.json.5 ${CMAKE_INSTALL_MANDIR}/man5)
  qz_generate(bash qz640ctl ${CMAKE_INSTALL_DATADIR}/bash-completion/completions)
  qz_generate(zsh _qz640ctl ${QZ_ZSHDIR})
  qz_generate(fish qz640ctl.fish ${CMAKE_INSTALL_DATADIR}/fish/vendor_completions.d)
  qz_generate(powershell qz640ctl.ps1 ${CMAKE_INSTALL_DATADIR}/qz640emu)
  add_custom_target(generated ALL DEPENDS ${generated})
endif()

# The services: one emulator, or one for each settings file.
if(CMAKE_SYSTEM_NAME STREQUAL Linux AND TARGET qz640ctl)
  foreach(service "qz640emu=qz640emu" "qz640emu@=%i")
    string(REGEX MATCH "^(.*)=(.*)$" service ${service})
    set(QZ_INSTANCE ${CMAKE_MATCH_2})
    configure_file(packaging/qz640emu.service.in ${CMAKE_MATCH_1}.service @ONLY)
    install(FILES ${CMAKE_BINARY_DIR}/${CMAKE_MATCH_1}.service DESTINATION lib/systemd/system)
  endforeach()
  # The settings of the one service: those that stand there already stay.
  install(CODE "set(folder \"${CMAKE_INSTALL_SYSCONFDIR}/qz640emu\")")
  install(CODE "set(source \"${CMAKE_SOURCE_DIR}/packaging/qz640emu.json\")")
  install(CODE [[
    if(NOT IS_ABSOLUTE ${folder})
      set(folder ${CMAKE_INSTALL_PREFIX}/${folder})
    endif()
    if(EXISTS $ENV{DESTDIR}${folder}/qz640emu.json)
      message(STATUS "Left as it is: $ENV{DESTDIR}${folder}/qz640emu.json")
    else()
      file(INSTALL ${source} DESTINATION ${folder})
    endif()
  ]])
endif()

# The Debian package: cpack -G DEB.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_VENDOR "the qz640emu authors")
set(CPACK_PACKAGE_CONTACT "${QZ_CONTACT}")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "stands in for QZ-640 network audio units")
set(CPACK_PACKAGE_DESCRIPTION
"Emulates any number of QZ-640 network audio units, so that controllers and
audio software can be written and tested without the hardware: found by UDP
broadcast, driven by acknowledged JSON messages, with 24-bit stereo RTP streams
in both directions.
.
qz640ctl finds, drives, hears and checks units, emulated or real, and starts
emulated ones for a test, for a CI job or as a service.")
set(CPACK_PACKAGING_INSTALL_PREFIX ${CMAKE_INSTALL_PREFIX})
set(CPACK_SET_DESTDIR ON)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_DEBIAN_PACKAGE_SECTION sound)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SUGGESTS "python3, wireshark")
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_DEBIAN_COMPRESSION_TYPE xz)
foreach(script postinst prerm postrm conffiles)
  list(APPEND CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA ${CMAKE_SOURCE_DIR}/packaging/debian/${script})
endforeach()
set(CPACK_PRE_BUILD_SCRIPTS ${CMAKE_SOURCE_DIR}/packaging/debian/finish.cmake)
include(CPack)
