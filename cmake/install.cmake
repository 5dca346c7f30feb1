# Where the programs find what is installed beside them, wherever the tree lies. A sensor's own
# library is where its loader looks anyway.
#
# The component `sensor` is what a sensor runs; all else is for machines that are none, or for other
# applications.
if(TARNIK_ORLO_SDK STREQUAL "bundled")
  file(RELATIVE_PATH to_libraries ${CMAKE_INSTALL_FULL_BINDIR} ${CMAKE_INSTALL_FULL_LIBDIR})
  set(CMAKE_INSTALL_RPATH $ORIGIN/${to_libraries})
endif()
