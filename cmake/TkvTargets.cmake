# The kinds of target in this project, and the flags that all of them share.
include(GNUInstallDirs)

# Installed programs find the libraries beside them, whatever the prefix.
file(RELATIVE_PATH TKV_LIBRARIES_FROM_PROGRAMS /${CMAKE_INSTALL_BINDIR} /${CMAKE_INSTALL_LIBDIR})

set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_C_STANDARD 11)
set(CMAKE_C_STANDARD_REQUIRED ON)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
set(CMAKE_CXX_VISIBILITY_PRESET hidden)
set(CMAKE_C_VISIBILITY_PRESET hidden)
set(CMAKE_VISIBILITY_INLINES_HIDDEN ON)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)

add_library(tkv_flags INTERFACE)
target_compile_options(tkv_flags INTERFACE -Wall -Wextra -Wconversion -Wshadow -Wnon-virtual-dtor
                       $<$<BOOL:${TKV_WERROR}>:-Werror>)
target_compile_options(tkv_flags INTERFACE $<$<COMPILE_LANGUAGE:C>:-Wno-non-virtual-dtor>)
target_compile_definitions(tkv_flags INTERFACE _GNU_SOURCE TKV_VERSION="${PROJECT_VERSION}")
target_link_options(tkv_flags INTERFACE -Wl,-z,relro,-z,now)
if(TKV_SANITIZE)
  target_compile_options(tkv_flags INTERFACE -fsanitize=${TKV_SANITIZE} -fno-omit-frame-pointer
                         -fno-sanitize-recover=all)
  target_link_options(tkv_flags INTERFACE -fsanitize=${TKV_SANITIZE})
  if(TKV_SANITIZE MATCHES thread)
    # The thread sanitizer does not see fences, and GCC says so. Ours order reads of a page that other processes write,
    # of which it sees nothing either.
    target_compile_options(tkv_flags INTERFACE -Wno-tsan)
  endif()
endif()
if(TKV_COVERAGE)
  target_link_options(tkv_flags INTERFACE --coverage)
endif()

# Hardening, for what is installed: the tests, which are not optimised, cannot have the checks of the C library.
add_library(tkv_hardening INTERFACE)
target_compile_options(tkv_hardening INTERFACE -fstack-protector-strong)
if(CMAKE_SYSTEM_PROCESSOR STREQUAL "x86_64")
  target_compile_options(tkv_hardening INTERFACE -fcf-protection)
endif()
set(TKV_FORTIFIED OFF)
if(CMAKE_BUILD_TYPE MATCHES "^(Release|RelWithDebInfo|MinSizeRel)$" AND NOT TKV_SANITIZE AND NOT TKV_COVERAGE)
  set(TKV_FORTIFIED ON)
  target_compile_options(tkv_hardening INTERFACE -U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=2)
endif()

# tkv_library(name SOURCES ... [LINKS ...]): a static library, one of the parts of the shared libraries and the command.
function(tkv_library name)
  cmake_parse_arguments(ARG "" "" "SOURCES;LINKS" ${ARGN})
  add_library(${name} STATIC ${ARG_SOURCES})
  target_link_libraries(${name} PUBLIC ${ARG_LINKS} PRIVATE tkv_flags tkv_hardening)
  if(TKV_COVERAGE)
    target_compile_options(${name} PRIVATE --coverage -O0)
  endif()
  if(TKV_LTO)
    # Fat objects: the shared libraries are optimised across units; tests and the command link the plain code, quickly.
    target_compile_options(${name} PRIVATE -flto -ffat-lto-objects)
  endif()
endfunction()

# tkv_module(name EXPORTS map [LINKS ...]): a shared library that exports what its map lists, and nothing else.
function(tkv_module name)
  cmake_parse_arguments(ARG "" "EXPORTS" "SOURCES;LINKS" ${ARGN})
  add_library(${name} SHARED ${ARG_SOURCES})
  target_link_libraries(${name} PRIVATE ${ARG_LINKS} tkv_flags tkv_hardening)
  target_link_options(${name} PRIVATE -Wl,--version-script=${ARG_EXPORTS})
  set_target_properties(${name} PROPERTIES LINK_DEPENDS ${ARG_EXPORTS} LIBRARY_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/lib)
  if(TKV_LTO)
    target_compile_options(${name} PRIVATE -flto -ffat-lto-objects)
    target_link_options(${name} PRIVATE -flto=auto)
  endif()
endfunction()

# tkv_digest_of_headers(variable header ...): 16 hexadecimal digits that change with the release's number and with the text
# of these headers or of any header of the platform that they include. A change of one of them configures the build anew.
function(tkv_digest_of_headers variable)
  set(pending ${ARGN})
  set(read "")
  set(text ${PROJECT_VERSION})
  while(pending)
    list(POP_FRONT pending header)
    unset(file)
    find_file(file ${header} PATHS ${PROJECT_SOURCE_DIR}/platform ${PROJECT_SOURCE_DIR}/platform/if
              NO_CACHE NO_DEFAULT_PATH REQUIRED)
    if(NOT file IN_LIST read)
      list(APPEND read ${file})
      file(SHA256 ${file} digest)
      string(APPEND text ${digest})
      file(STRINGS ${file} includes REGEX "^#include \"")
      list(TRANSFORM includes REPLACE "^#include \"([^\"]+)\".*" "\\1")
      list(APPEND pending ${includes})
    endif()
  endwhile()
  set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${read})
  string(SHA256 digest ${text})
  string(SUBSTRING ${digest} 0 16 digest)
  set(${variable} ${digest} PARENT_SCOPE)
endfunction()

# How long a test may run before it counts as hanging: ample for a sanitized test on a busy machine. Tests with the
# label "prove" are the long runs.
set(TKV_TEST_TIMEOUT 600)
set(TKV_PROVE_TIMEOUT 7200)
# How a test that skipped something says so to ctest; see tests/main.cpp. Python prints it itself.
set(TKV_SKIPPED SKIP_RETURN_CODE 77 SKIP_REGULAR_EXPRESSION "OK \\(skipped=")

# tkv_test(name SOURCES ... [LINKS ...] [LABELS ...]): a GoogleTest program, run as one test.
function(tkv_test name)
  cmake_parse_arguments(ARG "" "" "SOURCES;LINKS;LABELS" ${ARGN})
  add_executable(${name} ${ARG_SOURCES})
  target_link_libraries(${name} PRIVATE ${ARG_LINKS} tkv_test_main)
  target_include_directories(${name} PRIVATE ${CMAKE_CURRENT_SOURCE_DIR})
  target_precompile_headers(${name} REUSE_FROM tkv_test_main)
  if(name MATCHES "^(fair_mutex|lmdb|reader_pool|registry|etcd)_")  # the stores and the registry client: also under TSan
    list(APPEND ARG_LABELS threads)
    add_dependencies(thread_tests ${name})
  endif()
  tkv_script_test(${name} COMMAND ${name} LABELS ${ARG_LABELS})
endfunction()

# tkv_script_test(name COMMAND ... [LABELS ...]): a test that is a command of its own.
function(tkv_script_test name)
  cmake_parse_arguments(ARG "" "" "COMMAND;LABELS" ${ARGN})
  add_test(NAME ${name} COMMAND ${ARG_COMMAND})
  set(timeout ${TKV_TEST_TIMEOUT})
  if("prove" IN_LIST ARG_LABELS)
    set(timeout ${TKV_PROVE_TIMEOUT})
  endif()
  set_tests_properties(${name} PROPERTIES LABELS "${ARG_LABELS}" TIMEOUT ${timeout} ${TKV_SKIPPED})
endfunction()

# tkv_trials(name SOURCES ... [LINKS ...] [LABELS ...]): a program whose short run is a test. Its long run, with --long,
# is for proofs and ends with a table.
function(tkv_trials name)
  cmake_parse_arguments(ARG "" "" "SOURCES;LINKS;LABELS" ${ARGN})
  add_executable(${name} ${ARG_SOURCES})
  target_link_libraries(${name} PRIVATE ${ARG_LINKS} GTest::gtest tkv_flags)
  tkv_script_test(${name} COMMAND ${name} LABELS ${ARG_LABELS})
  tkv_script_test(${name}.long COMMAND ${name} --long LABELS prove)
  set_tests_properties(${name}.long PROPERTIES TIMEOUT 3600)
endfunction()
