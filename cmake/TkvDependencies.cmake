# What the build needs from the system. Nothing is detected as optional: a missing dependency is an error that names the
# Debian package to install.

# tkv_require(target library header package): imports a C library as tkv_ext::target.
function(tkv_require target library header package)
  find_library(${target}_LIBRARY ${library})
  find_path(${target}_INCLUDE ${header})
  if(NOT ${target}_LIBRARY OR NOT ${target}_INCLUDE)
    message(FATAL_ERROR "${library} is missing: install the Debian package ${package}")
  endif()
  add_library(tkv_ext::${target} UNKNOWN IMPORTED GLOBAL)
  set_target_properties(tkv_ext::${target} PROPERTIES IMPORTED_LOCATION ${${target}_LIBRARY}
                        INTERFACE_INCLUDE_DIRECTORIES ${${target}_INCLUDE})
endfunction()

# The JDK is located through its compiler: find_package(JNI) needs JAVA_HOME on machines without the default-java link.
if(DEFINED ENV{JAVA_HOME} AND NOT JAVA_HOME)
  set(JAVA_HOME $ENV{JAVA_HOME})
endif()
if(NOT JAVA_HOME)
  find_program(TKV_JAVAC javac)
  if(NOT TKV_JAVAC)
    message(FATAL_ERROR "javac is missing: install the Debian package openjdk-17-jdk-headless")
  endif()
  file(REAL_PATH ${TKV_JAVAC} javac)
  cmake_path(GET javac PARENT_PATH java_bin)
  cmake_path(GET java_bin PARENT_PATH JAVA_HOME)
endif()
set(ENV{JAVA_HOME} ${JAVA_HOME})
set(JAVA_AWT_LIBRARY NotNeeded)
set(JAVA_AWT_INCLUDE_PATH NotNeeded)
find_package(JNI REQUIRED)
find_package(Java 17 REQUIRED COMPONENTS Development)
include(UseJava)

# The command that compiles Java, with the options that all of it shares.
set(TKV_COMPILE_JAVA ${Java_JAVAC_EXECUTABLE} -encoding UTF-8 --release 17)
if(TKV_WERROR)
  list(APPEND TKV_COMPILE_JAVA -Werror)
endif()

# Headers only: the JVM loads libtkv.so, which must not link with libjvm.
add_library(tkv_jni INTERFACE)
target_include_directories(tkv_jni SYSTEM INTERFACE ${JAVA_INCLUDE_PATH} ${JAVA_INCLUDE_PATH2})

find_package(Threads REQUIRED)
if(TKV_PLATFORM STREQUAL "embedded")
  tkv_require(lmdb lmdb lmdb.h liblmdb-dev)
  tkv_require(xxhash xxhash xxhash.h libxxhash-dev)
  tkv_require(inih inih ini.h libinih-dev)
endif()

if(TKV_TESTS)
  find_package(GTest CONFIG)
  if(NOT GTest_FOUND)
    message(FATAL_ERROR "GoogleTest is missing: install the Debian packages libgtest-dev and libgmock-dev")
  endif()
  set(TKV_JUNIT /usr/share/java/junit-platform-console-standalone.jar)
  if(NOT EXISTS ${TKV_JUNIT})
    message(FATAL_ERROR "${TKV_JUNIT} is missing: install the Debian package junit5")
  endif()
endif()
