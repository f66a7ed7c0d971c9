# What `cmake --install` puts in place: the libraries (with a -ltavrin link),
# the headers as <tavrin/...> and, for the binder API, <binder/...> under
# include/tvbinder, the daemon and the `tavrin` command, the find_package and
# pkg-config files, the man pages and the systemd user unit.
include(CMakePackageConfigHelpers)

option(TAVRIN_INSTALL_SYSTEMD_UNIT "Install the systemd user unit of the service manager" ON)
set(TAVRIN_MAN_PAGES AUTO CACHE STRING "Make the man pages with go-md2man: AUTO, ON or OFF")

set(TAVRIN_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/tavrin)

install(TARGETS tavrin tvbinder EXPORT tavrinTargets LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(TARGETS tavrin-servicemanager tavrin-cli RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
file(CREATE_LINK libtavrin_2_0.so.1 ${CMAKE_CURRENT_BINARY_DIR}/libtavrin.so SYMBOLIC)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/libtavrin.so DESTINATION ${CMAKE_INSTALL_LIBDIR})

file(GLOB TAVRIN_INSTALLED_HEADERS CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/include/*.h)
install(FILES ${TAVRIN_INSTALLED_HEADERS} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/tavrin)
file(GLOB TVBINDER_INSTALLED_HEADERS CONFIGURE_DEPENDS
  ${PROJECT_SOURCE_DIR}/platform/include/binder/*.h)
install(FILES ${TVBINDER_INSTALLED_HEADERS} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/tvbinder/binder)

# find_package(tavrin 2.0 CONFIG): targets, version, and the Android libraries' finder.
configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/tavrinConfig.cmake.in
  ${CMAKE_CURRENT_BINARY_DIR}/tavrinConfig.cmake
  INSTALL_DESTINATION ${TAVRIN_CMAKE_DIR}
  PATH_VARS CMAKE_INSTALL_INCLUDEDIR)
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/tavrinConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(EXPORT tavrinTargets NAMESPACE tavrin:: DESTINATION ${TAVRIN_CMAKE_DIR})
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/tavrinConfig.cmake
  ${CMAKE_CURRENT_BINARY_DIR}/tavrinConfigVersion.cmake
  ${PROJECT_SOURCE_DIR}/cmake/FindAndroidPlatform.cmake
  DESTINATION ${TAVRIN_CMAKE_DIR})

# pkg-config: the prefix is found from the .pc file's own place, so that a
# moved tree works; programs built against a libdir off the linker's default
# path find the libraries at run time without a hand-written rpath.
file(RELATIVE_PATH TAVRIN_PC_TO_PREFIX ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_PREFIX})
string(REGEX REPLACE "/$" "" TAVRIN_PC_TO_PREFIX "${TAVRIN_PC_TO_PREFIX}")
set(TAVRIN_PC_RUNPATH "")
if(NOT CMAKE_INSTALL_FULL_LIBDIR IN_LIST CMAKE_CXX_IMPLICIT_LINK_DIRECTORIES)
  set(TAVRIN_PC_RUNPATH "-Wl,-rpath,\${libdir}")
endif()
foreach(pc tavrin tvbinder)
  configure_file(${PROJECT_SOURCE_DIR}/cmake/${pc}.pc.in ${CMAKE_CURRENT_BINARY_DIR}/pkgconfig/${pc}.pc
    @ONLY)
  install(FILES ${CMAKE_CURRENT_BINARY_DIR}/pkgconfig/${pc}.pc
    DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
endforeach()

# Man pages, from the same Markdown as docs/cli.md and the daemon's README.
if(NOT TAVRIN_MAN_PAGES STREQUAL "OFF")
  find_program(GO_MD2MAN go-md2man)
  if(NOT GO_MD2MAN AND TAVRIN_MAN_PAGES STREQUAL "ON")
    message(FATAL_ERROR "TAVRIN_MAN_PAGES=ON needs go-md2man (apt-get install go-md2man)")
  endif()
endif()
if(GO_MD2MAN AND NOT TAVRIN_MAN_PAGES STREQUAL "OFF")
  set(man_pages)
  foreach(page "tavrin.1:docs/cli.md" "tavrin-servicemanager.8:platform/servicemanager/README.md")
    string(REPLACE ":" ";" page "${page}")
    list(GET page 0 name)
    list(GET page 1 source)
    string(REGEX REPLACE ".*\\." "" section "${name}")
    add_custom_command(OUTPUT ${CMAKE_CURRENT_BINARY_DIR}/man/${name}
      COMMAND ${CMAKE_COMMAND} -E make_directory ${CMAKE_CURRENT_BINARY_DIR}/man
      COMMAND ${GO_MD2MAN} -in ${PROJECT_SOURCE_DIR}/${source}
              -out ${CMAKE_CURRENT_BINARY_DIR}/man/${name}
      DEPENDS ${PROJECT_SOURCE_DIR}/${source}
      COMMENT "Making the man page ${name}")
    list(APPEND man_pages ${CMAKE_CURRENT_BINARY_DIR}/man/${name})
    install(FILES ${CMAKE_CURRENT_BINARY_DIR}/man/${name}
      DESTINATION ${CMAKE_INSTALL_MANDIR}/man${section})
  endforeach()
  add_custom_target(man_pages ALL DEPENDS ${man_pages})
endif()

# The per-user service manager under systemd (systemctl --user enable --now ...).
if(TAVRIN_INSTALL_SYSTEMD_UNIT)
  configure_file(${PROJECT_SOURCE_DIR}/cmake/tavrin-servicemanager.service.in
    ${CMAKE_CURRENT_BINARY_DIR}/tavrin-servicemanager.service @ONLY)
  install(FILES ${CMAKE_CURRENT_BINARY_DIR}/tavrin-servicemanager.service
    DESTINATION lib/systemd/user)
endif()
