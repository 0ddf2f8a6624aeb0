# make package: CPack .deb files.
#   libsmart-frame-dev  components dev + posix: static libraries, public
#                       headers, CMake package, pkg-config files
#   sfgw                component daemon: the gateway daemon, its hardened
#                       systemd unit and system user (sysusers.d), an
#                       example description in /etc/sfgw whose LAN key the
#                       postinst replaces with one of the gateway's own, the
#                       state directory /var/lib/sfgw, and the README and
#                       docs the unit's Documentation= names
if(TARGET sfgw)
  install(TARGETS sfgw RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT daemon)
  install(FILES ${CMAKE_SOURCE_DIR}/packaging/sfgw.service DESTINATION lib/systemd/system COMPONENT daemon)
  install(FILES ${CMAKE_SOURCE_DIR}/packaging/sfgw.sysusers DESTINATION lib/sysusers.d RENAME sfgw.conf
          COMPONENT daemon)
  install(FILES ${CMAKE_SOURCE_DIR}/README.md DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/sfgw COMPONENT daemon)
  file(GLOB SF_DOCS ${CMAKE_SOURCE_DIR}/docs/*.md)
  install(FILES ${SF_DOCS} DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/sfgw/docs COMPONENT daemon)
  install(FILES ${CMAKE_SOURCE_DIR}/examples/gateway.json DESTINATION /etc/sfgw COMPONENT daemon)
  file(MAKE_DIRECTORY ${CMAKE_BINARY_DIR}/package/state)
  install(DIRECTORY ${CMAKE_BINARY_DIR}/package/state/ DESTINATION /var/lib/sfgw COMPONENT daemon)
endif()

set(CPACK_PACKAGE_NAME smart-frame)
set(CPACK_PACKAGE_VENDOR "smart frame")
set(CPACK_PACKAGE_CONTACT "smart frame maintainers <maintainers@smart-frame.invalid>")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "data-point engine of an IoT gateway SDK")
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION devel)
set(CPACK_COMPONENTS_GROUPING ONE_PER_GROUP)
set(CPACK_COMPONENTS_ALL dev posix)
if(TARGET sfgw)
  list(APPEND CPACK_COMPONENTS_ALL daemon)
endif()

set(CPACK_DEBIAN_LIBSMART-FRAME-DEV_PACKAGE_NAME libsmart-frame-dev)
# The pkg-config and CMake files link -lstdc++ (the libraries are C++ inside),
# and a C compiler finds libstdc++.so only in the C++ runtime's development
# package (libstdc++-12-dev on Debian 12), which g++ usually brings along. A
# C-only machine has gcc and not that: depend on the package that holds the
# libstdc++.so of the compiler these libraries were built with.
set(SF_STDCXX_DEV libstdc++-dev)
execute_process(COMMAND ${CMAKE_CXX_COMPILER} -print-file-name=libstdc++.so
                OUTPUT_VARIABLE SF_STDCXX_SO OUTPUT_STRIP_TRAILING_WHITESPACE ERROR_QUIET)
if(IS_ABSOLUTE "${SF_STDCXX_SO}")
  execute_process(COMMAND dpkg-query -S ${SF_STDCXX_SO} OUTPUT_VARIABLE SF_STDCXX_OWNER ERROR_QUIET
                  OUTPUT_STRIP_TRAILING_WHITESPACE)
  string(REGEX MATCH "^[^:,]+" SF_STDCXX_OWNER "${SF_STDCXX_OWNER}")
  if(SF_STDCXX_OWNER)
    set(SF_STDCXX_DEV ${SF_STDCXX_OWNER})
  endif()
endif()
set(CPACK_DEBIAN_LIBSMART-FRAME-DEV_PACKAGE_DEPENDS "libcjson-dev, libmosquitto-dev, libsqlite3-dev, ${SF_STDCXX_DEV}")
set(CPACK_DEBIAN_LIBSMART-FRAME-DEV_DESCRIPTION
    "smart frame static libraries, headers, CMake package and pkg-config files")
set(CPACK_DEBIAN_SFGW_PACKAGE_NAME sfgw)
set(CPACK_DEBIAN_SFGW_PACKAGE_SECTION net)
set(CPACK_DEBIAN_SFGW_PACKAGE_DEPENDS
    "libcjson1, libmosquitto1, libsqlite3-0, libssl3, libstdc++6, libc6, systemd | adduser")
# The description under /etc is the administrator's once installed: an
# upgrade must not overwrite their edits.
file(WRITE ${CMAKE_BINARY_DIR}/package/conffiles "/etc/sfgw/gateway.json\n")
set(CPACK_DEBIAN_SFGW_PACKAGE_CONTROL_EXTRA ${CMAKE_BINARY_DIR}/package/conffiles
    ${CMAKE_SOURCE_DIR}/packaging/postinst)

include(CPack)
cpack_add_component_group(libsmart-frame-dev DESCRIPTION "smart frame development files")
cpack_add_component_group(sfgw DESCRIPTION "smart frame gateway daemon")
cpack_add_component(dev GROUP libsmart-frame-dev)
cpack_add_component(posix GROUP libsmart-frame-dev)
cpack_add_component(daemon GROUP sfgw)

# make test: the installed package and the .deb files, each used by the C
# gateway (label package)
include(${CMAKE_CURRENT_LIST_DIR}/package_tests.cmake)
