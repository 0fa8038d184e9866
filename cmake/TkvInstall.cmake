# What `make install` puts in place: libraries, jar, headers, command, man pages, and what other builds find them by.
include(CMakePackageConfigHelpers)

set(TKV_INSTALL_JAR ${CMAKE_INSTALL_DATADIR}/java)

install(TARGETS prtkv EXPORT tkvTargets LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(TARGETS tkv_shared LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
if(TKV_ETCD)
  install(TARGETS tkv_etcd LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
endif()
install(FILES ${TKV_JAR} DESTINATION ${TKV_INSTALL_JAR})
install(DIRECTORY platform/if/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/tkv FILES_MATCHING PATTERN "*.h")
install(FILES framework/tkv/if/tkv.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/tkv)

install(EXPORT tkvTargets NAMESPACE tkv:: DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/tkv)
configure_package_config_file(cmake/tkvConfig.cmake.in ${CMAKE_BINARY_DIR}/tkvConfig.cmake
                              INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/tkv
                              PATH_VARS TKV_INSTALL_JAR CMAKE_INSTALL_LIBDIR)
write_basic_package_version_file(${CMAKE_BINARY_DIR}/tkvConfigVersion.cmake COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_BINARY_DIR}/tkvConfig.cmake ${CMAKE_BINARY_DIR}/tkvConfigVersion.cmake
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/tkv)

configure_file(cmake/tkv.pc.in ${CMAKE_BINARY_DIR}/tkv.pc @ONLY)
install(FILES ${CMAKE_BINARY_DIR}/tkv.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
