# Install run paths that exist wherever the tree is installed.
#
# tavrin_install_runpath(TARGET DESTINATION) sets TARGET's INSTALL_RPATH to
# the install's libdir and to the directory of Debian's liblog and libutils,
# each seen from $ORIGIN when it lies under the install prefix (a moved tree
# keeps working, and packages name no absolute search path), else absolute.
# DESTINATION is where TARGET is installed, relative to the prefix.

function(tavrin_install_runpath target destination)
  get_filename_component(prefix "${CMAKE_INSTALL_PREFIX}" ABSOLUTE)
  set(origin "${prefix}/${destination}")
  set(paths)
  foreach(directory "${CMAKE_INSTALL_FULL_LIBDIR}" ${AndroidPlatform_LIBRARY_DIRS})
    get_filename_component(directory "${directory}" ABSOLUTE)
    string(FIND "${directory}/" "${prefix}/" at)
    if(at EQUAL 0 AND NOT prefix STREQUAL "/")
      file(RELATIVE_PATH relative "${origin}" "${directory}")
      if(relative STREQUAL "")
        list(APPEND paths "$ORIGIN")
      else()
        list(APPEND paths "$ORIGIN/${relative}")
      endif()
    else()
      list(APPEND paths "${directory}")
    endif()
  endforeach()
  list(REMOVE_DUPLICATES paths)
  set_target_properties(${target} PROPERTIES INSTALL_RPATH "${paths}")
endfunction()
