# What `make install` installs: libraries, jar, headers, command, manual pages, and the files by which CMake and
# pkg-config find them.
include(CMakePackageConfigHelpers)

set(TKV_INSTALL_JAR ${CMAKE_INSTALL_DATADIR}/java)

install(TARGETS prtkv EXPORT tkvTargets LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(TARGETS tkv_shared LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
if(TKV_ETCD)
  install(TARGETS tkv_etcd LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
endif()
install(TARGETS tkv_command RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
install(FILES ${TKV_JAR} DESTINATION ${TKV_INSTALL_JAR})
install(DIRECTORY platform/if/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/tkv FILES_MATCHING PATTERN "*.h")
install(FILES framework/tkv/if/tkv.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/tkv)

# The command itself writes its manual pages and completions.
set(manuals ${PROJECT_BINARY_DIR}/manuals)
add_custom_command(
  OUTPUT ${manuals}/tkv.1 ${manuals}/tkv.conf.5 ${manuals}/tkv.bash ${manuals}/_tkv ${manuals}/tkv.fish
  COMMAND ${CMAKE_COMMAND} -E make_directory ${manuals}
  COMMAND tkv_command help --man > ${manuals}/tkv.1
  COMMAND tkv_command help --man-conf > ${manuals}/tkv.conf.5
  COMMAND tkv_command completion bash > ${manuals}/tkv.bash
  COMMAND tkv_command completion zsh > ${manuals}/_tkv
  COMMAND tkv_command completion fish > ${manuals}/tkv.fish
  DEPENDS tkv_command
  COMMENT "Writing the manual pages and completions"
  VERBATIM)
add_custom_target(tkv_manuals ALL DEPENDS ${manuals}/tkv.1)
install(FILES ${manuals}/tkv.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
install(FILES ${manuals}/tkv.conf.5 DESTINATION ${CMAKE_INSTALL_MANDIR}/man5)
install(FILES ${manuals}/tkv.bash DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions RENAME tkv)
install(FILES ${manuals}/_tkv DESTINATION ${CMAKE_INSTALL_DATADIR}/zsh/site-functions)
install(FILES ${manuals}/tkv.fish DESTINATION ${CMAKE_INSTALL_DATADIR}/fish/vendor_completions.d)

# Debug information is installed on request: cmake --install BUILD --component debug
set(binaries "[[$<TARGET_FILE:prtkv>]] ${CMAKE_INSTALL_LIBDIR} [[$<TARGET_FILE:tkv_shared>]] ${CMAKE_INSTALL_LIBDIR}")
string(APPEND binaries " [[$<TARGET_FILE:tkv_command>]] ${CMAKE_INSTALL_BINDIR}")
if(TKV_ETCD)
  string(APPEND binaries " [[$<TARGET_FILE:tkv_etcd>]] ${CMAKE_INSTALL_LIBDIR}")
endif()
install(CODE "set(TKV_OBJCOPY [[${CMAKE_OBJCOPY}]])\nset(TKV_BINARIES ${binaries})" COMPONENT debug EXCLUDE_FROM_ALL)
install(SCRIPT ${CMAKE_CURRENT_LIST_DIR}/TkvInstallDebug.cmake COMPONENT debug EXCLUDE_FROM_ALL)

install(EXPORT tkvTargets NAMESPACE tkv:: DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/tkv)
configure_package_config_file(cmake/tkvConfig.cmake.in ${PROJECT_BINARY_DIR}/tkvConfig.cmake
                              INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/tkv
                              PATH_VARS TKV_INSTALL_JAR CMAKE_INSTALL_LIBDIR)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/tkvConfigVersion.cmake COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/tkvConfig.cmake ${PROJECT_BINARY_DIR}/tkvConfigVersion.cmake
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/tkv)

# The prefix is relative to the .pc file, so that an installed tree can be moved.
file(RELATIVE_PATH TKV_PREFIX_FROM_PKGCONFIG /${CMAKE_INSTALL_LIBDIR}/pkgconfig /)
configure_file(cmake/tkv.pc.in ${PROJECT_BINARY_DIR}/tkv.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/tkv.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
