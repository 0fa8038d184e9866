# Runs when the component "debug" is installed, after everything else is: puts the debug information of each installed
# program and library into the folder .debug beside it, where debuggers look, and leaves its name in the stripped file.
#
# TKV_OBJCOPY   the program objcopy
# TKV_BINARIES  what was installed: pairs of a built file and the folder it goes to, relative to the prefix
while(TKV_BINARIES)
  list(POP_FRONT TKV_BINARIES built destination)
  cmake_path(GET built FILENAME name)
  set(folder ${CMAKE_INSTALL_PREFIX}/${destination})
  set(installed $ENV{DESTDIR}${folder}/${name})
  if(NOT EXISTS ${installed})
    message(FATAL_ERROR "${installed} is not installed: run make install first")
  endif()
  set(debug $ENV{DESTDIR}${folder}/.debug/${name}.debug)
  message(STATUS "Installing: ${debug}")
  file(MAKE_DIRECTORY $ENV{DESTDIR}${folder}/.debug)
  execute_process(COMMAND ${TKV_OBJCOPY} --only-keep-debug ${built} ${debug} COMMAND_ERROR_IS_FATAL ANY)
  file(CHMOD ${debug} PERMISSIONS OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ)
  execute_process(COMMAND ${TKV_OBJCOPY} --strip-unneeded --remove-section=.gnu_debuglink ${installed}
                  COMMAND_ERROR_IS_FATAL ANY)
  execute_process(COMMAND ${TKV_OBJCOPY} --add-gnu-debuglink=${debug} ${installed} COMMAND_ERROR_IS_FATAL ANY)
  list(APPEND CMAKE_INSTALL_MANIFEST_FILES ${folder}/.debug/${name}.debug)
endwhile()
