# cmake --install: the module (component "dev": libsmart_frame.a, its public
# headers, the CMake package and smart_frame.pc) and, as component "posix",
# the POSIX backend (libsf_posix.a, libsf_base64.a, its public headers and
# smart_frame-posix.pc). Headers go under <includedir>/smart_frame, keeping
# the tree's folders, so a consumer includes "smart_frame/smart_frame.h" as
# the sources do.
include(CMakePackageConfigHelpers)

set(SF_INSTALL_INCLUDEDIR ${CMAKE_INSTALL_INCLUDEDIR}/smart_frame)
set(SF_INSTALL_CMAKEDIR ${CMAKE_INSTALL_LIBDIR}/cmake/smart_frame)

set_target_properties(smart_frame PROPERTIES VERSION ${PROJECT_VERSION} EXPORT_NAME smart_frame)
install(TARGETS smart_frame EXPORT smart_frame-targets
        ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT dev)
install(DIRECTORY cloud_defs services DESTINATION ${SF_INSTALL_INCLUDEDIR} COMPONENT dev
        FILES_MATCHING PATTERN "*.h")
install(FILES smart_frame/smart_frame.h DESTINATION ${SF_INSTALL_INCLUDEDIR}/smart_frame COMPONENT dev)
install(EXPORT smart_frame-targets NAMESPACE smart_frame:: DESTINATION ${SF_INSTALL_CMAKEDIR}
        COMPONENT dev)

configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/smart_frameConfig.cmake.in
  ${CMAKE_BINARY_DIR}/package/smart_frameConfig.cmake INSTALL_DESTINATION ${SF_INSTALL_CMAKEDIR})
write_basic_package_version_file(${CMAKE_BINARY_DIR}/package/smart_frameConfigVersion.cmake
  VERSION ${PROJECT_VERSION} COMPATIBILITY SameMinorVersion)
install(FILES ${CMAKE_BINARY_DIR}/package/smart_frameConfig.cmake
              ${CMAKE_BINARY_DIR}/package/smart_frameConfigVersion.cmake
        DESTINATION ${SF_INSTALL_CMAKEDIR} COMPONENT dev)

# pkg-config: paths relative to the .pc file, so the tree can be moved
# (dpkg -x into a scratch root, --prefix at install time)
file(RELATIVE_PATH SF_PC_TO_PREFIX /prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig /prefix)
configure_file(${CMAKE_CURRENT_LIST_DIR}/smart_frame.pc.in ${CMAKE_BINARY_DIR}/package/smart_frame.pc @ONLY)
install(FILES ${CMAKE_BINARY_DIR}/package/smart_frame.pc
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT dev)

if(TARGET sf_posix)
  set_target_properties(sf_posix PROPERTIES VERSION ${PROJECT_VERSION} EXPORT_NAME posix_backend)
  set_target_properties(sf_base64 PROPERTIES VERSION ${PROJECT_VERSION} EXPORT_NAME base64)
  set_target_properties(sf_lan_tls PROPERTIES VERSION ${PROJECT_VERSION} EXPORT_NAME lan_tls)
  install(TARGETS sf_posix sf_base64 sf_lan_tls EXPORT smart_frame-posix-targets
          ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT posix)
  # each header where it lies in the tree, so its relative includes hold
  foreach(header port/posix/runtime/posix_runtime.h gateway/registry/gw_registry.h gateway/description/desc_model.h
                 gateway/description/desc_reader.h port/posix/mqtt/mqtt_config.h
                 port/posix/lan/lan_config.h)
    get_filename_component(header_dir ${header} DIRECTORY)
    install(FILES ${header} DESTINATION ${SF_INSTALL_INCLUDEDIR}/${header_dir} COMPONENT posix)
  endforeach()
  install(EXPORT smart_frame-posix-targets NAMESPACE smart_frame:: DESTINATION ${SF_INSTALL_CMAKEDIR}
          COMPONENT posix)
  configure_file(${CMAKE_CURRENT_LIST_DIR}/smart_frame-posix.pc.in
                 ${CMAKE_BINARY_DIR}/package/smart_frame-posix.pc @ONLY)
  install(FILES ${CMAKE_BINARY_DIR}/package/smart_frame-posix.pc
          DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT posix)
endif()
