# The libraries of the tools, brund-sim and zorvikctl:
#   libpcap                        reads and writes capture files
#   CLI11::CLI11                   command-line options and help
#   nlohmann_json::nlohmann_json   JSON output
# The daemon needs none of them. A machine that only builds the daemon may do without;
# TARNIK_TOOLS is then OFF.
find_path(PCAP_INCLUDE_DIR pcap/pcap.h)
find_library(PCAP_LIBRARY pcap)
if(PCAP_INCLUDE_DIR AND PCAP_LIBRARY)
  add_library(libpcap UNKNOWN IMPORTED)
  set_target_properties(libpcap PROPERTIES
    IMPORTED_LOCATION ${PCAP_LIBRARY} INTERFACE_INCLUDE_DIRECTORIES ${PCAP_INCLUDE_DIR})
endif()
find_package(CLI11 QUIET)
find_package(nlohmann_json QUIET)

set(missing)
foreach(library IN ITEMS libpcap=libpcap-dev CLI11::CLI11=libcli11-dev
    nlohmann_json::nlohmann_json=nlohmann-json3-dev)
  string(REPLACE "=" ";" parts ${library})
  list(GET parts 0 target)
  list(GET parts 1 package)
  if(NOT TARGET ${target})
    list(APPEND missing ${package})
  endif()
endforeach()
list(JOIN missing " " missing)
set(TARNIK_TOOLS ON)
if(missing)
  set(TARNIK_TOOLS OFF)
  if(TARNIK_TESTS)
    message(FATAL_ERROR "the tests need the tools, which need these packages: ${missing}")
  endif()
  message(WARNING "the tools, brund-sim and the driver stand-in are not built; install ${missing}")
endif()
