# What is built beside the emulator. AUTO takes what the machine has, ON ends the configuration where
# something is missing, OFF leaves it out. One line at configure time says what came of each.

function(qz_option name what)
  set(${name} AUTO CACHE STRING "${what}: AUTO, ON or OFF")
  set_property(CACHE ${name} PROPERTY STRINGS AUTO ON OFF)
  if(NOT "${${name}}" MATCHES "^(AUTO|ON|OFF)$")
    message(FATAL_ERROR "${name} is \"${${name}}\"; it takes AUTO, ON or OFF")
  endif()
endfunction()

qz_option(QZ_TOOLS "qz640ctl, on CLI11, Asio and nlohmann/json")
qz_option(QZ_SNDFILE "qz640ctl reads and writes more kinds of audio files, on libsndfile")
qz_option(QZ_SAMPLERATE "qz640ctl converts sample frequencies, on libsamplerate")
qz_option(QZ_PCAP "qz640ctl captures from an interface, on libpcap")
qz_option(QZ_CCACHE "Compiler cache, ccache")

# qz_decide(OPTION WHAT MISSING RESULT): RESULT is true where WHAT is to be built. MISSING names the
# Debian packages that aren't there, and is empty where all are.
function(qz_decide option what missing result)
  set(${result} FALSE PARENT_SCOPE)
  if(NOT ${option})
    message(STATUS "${what}: no, as ${option}=OFF")
  elseif(missing STREQUAL "")
    message(STATUS "${what}: yes")
    set(${result} TRUE PARENT_SCOPE)
  elseif(${option} STREQUAL AUTO)
    message(STATUS "${what}: no, as Debian's ${missing} is missing")
  else()
    message(FATAL_ERROR "${what}: ${option}=ON, but Debian's ${missing} is missing; install it, "
      "or take ${option}=AUTO")
  endif()
endfunction()
