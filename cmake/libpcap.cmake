# libpcap, which the tools and brund-sim read and write capture files with, as the target `libpcap`.
# The daemon does not need it: a machine that only builds the daemon may do without.
find_path(PCAP_INCLUDE_DIR pcap/pcap.h)
find_library(PCAP_LIBRARY pcap)
if(PCAP_INCLUDE_DIR AND PCAP_LIBRARY)
  add_library(libpcap UNKNOWN IMPORTED)
  set_target_properties(libpcap PROPERTIES
    IMPORTED_LOCATION ${PCAP_LIBRARY} INTERFACE_INCLUDE_DIRECTORIES ${PCAP_INCLUDE_DIR})
elseif(TARNIK_TESTS)
  message(FATAL_ERROR "libpcap is missing: install libpcap-dev")
else()
  message(WARNING "libpcap is missing: brund-sim and the tools are not built (install libpcap-dev)")
endif()
