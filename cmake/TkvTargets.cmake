# The three kinds of target that this project has, and the flags that all of them share.
include(GNUInstallDirs)

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
endif()
if(TKV_COVERAGE)
  target_compile_options(tkv_flags INTERFACE --coverage -O0)
  target_link_options(tkv_flags INTERFACE --coverage)
endif()

# tkv_library(name SOURCES ... [LINKS ...]): a static library, part of what the others are made of.
function(tkv_library name)
  cmake_parse_arguments(ARG "" "" "SOURCES;LINKS" ${ARGN})
  add_library(${name} STATIC ${ARG_SOURCES})
  target_link_libraries(${name} PUBLIC ${ARG_LINKS} PRIVATE tkv_flags)
  if(TKV_LTO)
    # Fat objects: the shared libraries link across units, tests and tools link the plain code and stay quick to build.
    target_compile_options(${name} PRIVATE -flto -ffat-lto-objects)
  endif()
endfunction()

# tkv_module(name EXPORTS map [LINKS ...]): a shared library that exports what its map names, nothing more.
function(tkv_module name)
  cmake_parse_arguments(ARG "" "EXPORTS" "SOURCES;LINKS" ${ARGN})
  add_library(${name} SHARED ${ARG_SOURCES})
  target_link_libraries(${name} PRIVATE ${ARG_LINKS} tkv_flags)
  target_link_options(${name} PRIVATE -Wl,--version-script=${ARG_EXPORTS})
  set_target_properties(${name} PROPERTIES LINK_DEPENDS ${ARG_EXPORTS} LIBRARY_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/lib)
  if(TKV_LTO)
    target_compile_options(${name} PRIVATE -flto -ffat-lto-objects)
    target_link_options(${name} PRIVATE -flto=auto)
  endif()
endfunction()

# What a test gets that hangs. Ample: a sanitized one on a busy machine takes its time.
set(TKV_TEST_TIMEOUT 600)

# tkv_test(name SOURCES ... [LINKS ...] [LABELS ...]): a GoogleTest program, run as one test.
function(tkv_test name)
  cmake_parse_arguments(ARG "" "" "SOURCES;LINKS;LABELS" ${ARGN})
  add_executable(${name} ${ARG_SOURCES})
  target_link_libraries(${name} PRIVATE ${ARG_LINKS} GTest::gmock GTest::gtest GTest::gtest_main tkv_flags)
  target_include_directories(${name} PRIVATE ${CMAKE_CURRENT_SOURCE_DIR})
  target_link_options(${name} PRIVATE -fno-lto)
  add_test(NAME ${name} COMMAND ${name})
  set_tests_properties(${name} PROPERTIES LABELS "${ARG_LABELS}" TIMEOUT ${TKV_TEST_TIMEOUT})
endfunction()

# tkv_script_test(name COMMAND ... [LABELS ...]): a test that is a command of its own.
function(tkv_script_test name)
  cmake_parse_arguments(ARG "" "" "COMMAND;LABELS" ${ARGN})
  add_test(NAME ${name} COMMAND ${ARG_COMMAND})
  set_tests_properties(${name} PROPERTIES LABELS "${ARG_LABELS}" TIMEOUT ${TKV_TEST_TIMEOUT})
endfunction()
