# Run by cpack when the files of each package stand in a folder of their own, before they are
# packed: adds what Debian's packages have beside them, and sets what depends on the files.

foreach(component IN LISTS CPACK_COMPONENTS_ALL)
  string(TOUPPER ${component} upper)
  set(package ${CPACK_DEBIAN_${upper}_PACKAGE_NAME})
  set(files ${CPACK_TEMPORARY_DIRECTORY}/${component})
  set(control ${CPACK_TOPLEVEL_DIRECTORY}/control/${component})
  set(extra)
  file(REMOVE_RECURSE ${control})
  file(MAKE_DIRECTORY ${control})

  # Copyright and changelog.
  set(doc ${files}/usr/share/doc/${package})
  configure_file(${CMAKE_CURRENT_LIST_DIR}/copyright.in ${doc}/copyright @ONLY NO_SOURCE_PERMISSIONS)
  string(TIMESTAMP date "%a, %d %b %Y %H:%M:%S +0000" UTC) # SOURCE_DATE_EPOCH sets it
  configure_file(${CMAKE_CURRENT_LIST_DIR}/changelog.in ${doc}/changelog @ONLY NO_SOURCE_PERMISSIONS)
  file(GLOB_RECURSE pages ${files}/usr/share/man/*)
  foreach(page IN LISTS pages)
    if(IS_SYMLINK ${page})
      message(FATAL_ERROR "${page} is a link, and would lead nowhere once pages are compressed")
    endif()
  endforeach()
  execute_process(COMMAND gzip -9n ${doc}/changelog ${pages} COMMAND_ERROR_IS_FATAL ANY)

  # What the folder of that name here holds: maintainer scripts, and what lintian complains
  # about and is meant.
  set(own ${CMAKE_CURRENT_LIST_DIR}/${package})
  foreach(script preinst postinst prerm postrm)
    if(EXISTS ${own}/${script})
      file(COPY ${own}/${script} DESTINATION ${control})
      list(APPEND extra ${script})
    endif()
  endforeach()
  if(EXISTS ${own}/lintian-overrides)
    configure_file(${own}/lintian-overrides ${files}/usr/share/lintian/overrides/${package} COPYONLY NO_SOURCE_PERMISSIONS)
  endif()

  # The packages of the libraries that are linked.
  file(GLOB programs ${files}/usr/bin/*)
  file(GLOB libraries ${files}/usr/lib/*.so ${files}/usr/lib/*.so.*
    ${files}/usr/lib/*/*.so ${files}/usr/lib/*/*.so.*)
  foreach(file IN LISTS programs libraries)
    if(IS_SYMLINK ${file})
      list(REMOVE_ITEM programs ${file})
      list(REMOVE_ITEM libraries ${file})
    endif()
  endforeach()
  if(programs OR libraries)
    file(WRITE ${control}/debian/control
      "Source: kestro\nPackage: ${package}\nArchitecture: any\n")
    file(MAKE_DIRECTORY ${files}/DEBIAN) # where it looks for the top of the package's files
    set(private)
    foreach(library IN LISTS libraries)
      get_filename_component(folder ${library} DIRECTORY)
      list(APPEND private -l${folder})
    endforeach()
    execute_process(
      COMMAND dpkg-shlibdeps -O --warnings=0 --ignore-missing-info ${private} ${programs} ${libraries}
      WORKING_DIRECTORY ${control} OUTPUT_VARIABLE depends ERROR_VARIABLE told RESULT_VARIABLE failed)
    if(failed)
      message(FATAL_ERROR "dpkg-shlibdeps: ${told}")
    endif()
    string(REGEX REPLACE "^shlibs:Depends=([^\n]*).*" "\\1" depends "${depends}")
    set(CPACK_DEBIAN_${upper}_PACKAGE_DEPENDS "${depends}")
    file(REMOVE_RECURSE ${control}/debian ${files}/DEBIAN)
  endif()
  if(libraries)
    file(WRITE ${control}/triggers "activate-noawait ldconfig\n")
    list(APPEND extra triggers)
  endif()

  # What programs that link the library depend on.
  file(GLOB versioned RELATIVE ${files} ${files}/usr/lib/lib*.so.[0-9]
    ${files}/usr/lib/*/lib*.so.[0-9])
  if(versioned)
    string(REGEX REPLACE ".*/(lib[^/]*)\\.so\\.([0-9]+)$" "\\1 \\2" library "${versioned}")
    file(WRITE ${control}/shlibs "${library} ${package} (>= ${CPACK_PACKAGE_VERSION})\n")
    list(APPEND extra shlibs)
  endif()

  # Configuration files, which an upgrade leaves as they were edited.
  file(GLOB_RECURSE conffiles RELATIVE ${files} ${files}/etc/*)
  if(conffiles)
    list(TRANSFORM conffiles PREPEND /)
    list(JOIN conffiles "\n" conffiles)
    file(WRITE ${control}/conffiles "${conffiles}\n")
    list(APPEND extra conffiles)
  endif()

  list(TRANSFORM extra PREPEND ${control}/)
  set(CPACK_DEBIAN_${upper}_PACKAGE_CONTROL_EXTRA ${extra})
endforeach()
