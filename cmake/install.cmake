# Installed programs find the installed libraries relative to their own folder, so the installed tree
# can be moved. A sensor's own SDK library is where the loader looks anyway.
#
# The component `sensor` is for sensors. Everything else is for other machines or other applications.
if(TARNIK_ORLO_SDK STREQUAL "bundled")
  file(RELATIVE_PATH to_libraries ${CMAKE_INSTALL_FULL_BINDIR} ${CMAKE_INSTALL_FULL_LIBDIR})
  set(CMAKE_INSTALL_RPATH $ORIGIN/${to_libraries})
endif()
