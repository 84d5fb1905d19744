# Run at installation: writes tmf.pc of the prefix that is installed to, which a prefix given
# to "cmake --install" makes known no earlier.  Set: tmf_version, libdir, includedir.
get_filename_component(prefix "${CMAKE_INSTALL_PREFIX}" ABSOLUTE)
get_filename_component(folder "${libdir}/pkgconfig" ABSOLUTE BASE_DIR "${prefix}")
foreach(dir libdir includedir)
  if(NOT IS_ABSOLUTE "${${dir}}")
    set(${dir} "\${prefix}/${${dir}}")
  endif()
endforeach()
string(REPLACE " " "\\ " prefix "${prefix}")
message(STATUS "Installing: $ENV{DESTDIR}${folder}/tmf.pc")
configure_file("${CMAKE_CURRENT_LIST_DIR}/tmf.pc.in" "$ENV{DESTDIR}${folder}/tmf.pc" @ONLY
  NO_SOURCE_PERMISSIONS)
list(APPEND CMAKE_INSTALL_MANIFEST_FILES "${folder}/tmf.pc")
