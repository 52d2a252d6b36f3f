# Shared build rules: warnings, sanitizers, and how tests and fuzz targets are declared.

set(NEMBRA_WARNINGS -Wall -Wextra -Wpedantic)

if(NEMBRA_SANITIZE)
  add_compile_options(-fsanitize=address,undefined -fno-omit-frame-pointer -fno-sanitize-recover=undefined)
  add_link_options(-fsanitize=address,undefined)
  set(NEMBRA_TEST_ENVIRONMENT "UBSAN_OPTIONS=print_stacktrace=1")
endif()
if(NEMBRA_TSAN)
  add_compile_options(-fsanitize=thread -fno-omit-frame-pointer)
  add_link_options(-fsanitize=thread)
  set(NEMBRA_TEST_ENVIRONMENT
      "TSAN_OPTIONS=halt_on_error=1 second_deadlock_stack=1 suppressions=${PROJECT_SOURCE_DIR}/scripts/tsan.supp")
endif()

# Collects the sources of a module: every .cc except tests, in the current directory or, with
# DIRS, in the listed subdirectories of it.
function(nembra_module_sources out_var)
  set(patterns)
  if(ARGN)
    foreach(dir ${ARGN})
      list(APPEND patterns ${CMAKE_CURRENT_SOURCE_DIR}/${dir}/*.cc)
    endforeach()
  else()
    set(patterns ${CMAKE_CURRENT_SOURCE_DIR}/*.cc)
  endif()
  file(GLOB all CONFIGURE_DEPENDS ${patterns})
  list(FILTER all EXCLUDE REGEX "_test\\.cc$")
  set(${out_var} ${all} PARENT_SCOPE)
endfunction()

# Collects the unit tests of a module, as nembra_module_sources does.
function(nembra_module_tests out_var)
  set(patterns)
  if(ARGN)
    foreach(dir ${ARGN})
      list(APPEND patterns ${CMAKE_CURRENT_SOURCE_DIR}/${dir}/*_test.cc)
    endforeach()
  else()
    set(patterns ${CMAKE_CURRENT_SOURCE_DIR}/*_test.cc)
  endif()
  file(GLOB all CONFIGURE_DEPENDS ${patterns})
  set(${out_var} ${all} PARENT_SCOPE)
endfunction()

# nembra_library(NAME [DIRS subdir...] DEPS dep...) builds the module in the current directory
# (or in the listed subdirectories). EXCLUDE names sources, relative to the directory, that
# belong to another target.
function(nembra_library name)
  cmake_parse_arguments(ARG "" "" "DIRS;DEPS;PRIVATE_DEPS;EXCLUDE" ${ARGN})
  nembra_module_sources(srcs ${ARG_DIRS})
  foreach(excluded ${ARG_EXCLUDE})
    list(REMOVE_ITEM srcs ${CMAKE_CURRENT_SOURCE_DIR}/${excluded})
  endforeach()
  add_library(${name} STATIC ${srcs})
  target_include_directories(${name} PUBLIC ${PROJECT_SOURCE_DIR} ${PROJECT_SOURCE_DIR}/include)
  target_compile_options(${name} PRIVATE ${NEMBRA_WARNINGS})
  target_link_libraries(${name} PUBLIC ${ARG_DEPS} PRIVATE ${ARG_PRIVATE_DEPS})
endfunction()

# peerless_tests builds every unit test and fuzz-corpus replay, and nothing else: the sanitizer
# pass of `make test` runs only those, so it need not build the tool, the integration tests or
# the benchmarks.
if(NOT TARGET peerless_tests)
  add_custom_target(peerless_tests)
endif()
function(nembra_peerless_test name)
  add_dependencies(peerless_tests ${name})
endfunction()

# nembra_unit_tests(NAME DEPS dep...) builds one test binary from the directory's *_test.cc
# and registers each test case with CTest under the label "unit".
function(nembra_unit_tests name)
  cmake_parse_arguments(ARG "" "" "DIRS;DEPS;EXTRA_SOURCES" ${ARGN})
  nembra_module_tests(tests ${ARG_DIRS})
  if(NOT tests OR NEMBRA_FUZZ)
    return()
  endif()
  add_executable(${name} ${tests} ${ARG_EXTRA_SOURCES})
  nembra_peerless_test(${name})
  target_compile_options(${name} PRIVATE ${NEMBRA_WARNINGS})
  target_link_libraries(${name} PRIVATE ${ARG_DEPS} GTest::gmock GTest::gtest_main)
  gtest_discover_tests(${name}
    DISCOVERY_MODE PRE_TEST NO_PRETTY_VALUES
    PROPERTIES LABELS unit TIMEOUT 120 ENVIRONMENT "${NEMBRA_TEST_ENVIRONMENT}")
endfunction()

# nembra_fuzzer(NAME SOURCE src DEPS dep... CORPUS dir) builds a fuzz target. With NEMBRA_FUZZ it
# links libFuzzer; otherwise it links a replay driver and CTest replays the seed corpus
# (label "fuzz") so every test run checks the corpus still passes.
# `fuzzers` builds every libFuzzer target and nothing else (make fuzz): the screen modules the
# fuzz configuration also defines need not be built to fuzz.
if(NEMBRA_FUZZ AND NOT TARGET fuzzers)
  add_custom_target(fuzzers)
endif()
function(nembra_fuzzer name)
  cmake_parse_arguments(ARG "" "SOURCE;CORPUS" "DEPS" ${ARGN})
  if(NEMBRA_FUZZ)
    add_executable(${name} ${ARG_SOURCE})
    add_dependencies(fuzzers ${name})
    target_compile_options(${name} PRIVATE -fsanitize=fuzzer,address,undefined)
    target_link_options(${name} PRIVATE -fsanitize=fuzzer,address,undefined)
  else()
    add_executable(${name} ${ARG_SOURCE} ${PROJECT_SOURCE_DIR}/fuzz/replay_main.cc)
    nembra_peerless_test(${name})
    add_test(NAME ${name}_corpus COMMAND ${name} ${ARG_CORPUS})
    set_tests_properties(${name}_corpus PROPERTIES LABELS fuzz TIMEOUT 120
                         ENVIRONMENT "${NEMBRA_TEST_ENVIRONMENT}")
  endif()
  target_link_libraries(${name} PRIVATE ${ARG_DEPS})
endfunction()

# nembra_integration_test(NAME SOURCES src... DEPS dep...) registers a test binary that talks
# to real peers, under the label "integration".
function(nembra_integration_test name)
  cmake_parse_arguments(ARG "" "" "SOURCES;DEPS" ${ARGN})
  add_executable(${name} ${ARG_SOURCES})
  target_compile_options(${name} PRIVATE ${NEMBRA_WARNINGS})
  target_link_libraries(${name} PRIVATE ${ARG_DEPS} GTest::gmock GTest::gtest_main)
  gtest_discover_tests(${name}
    DISCOVERY_MODE PRE_TEST NO_PRETTY_VALUES
    PROPERTIES LABELS integration TIMEOUT 300 ENVIRONMENT "${NEMBRA_TEST_ENVIRONMENT}"
    WORKING_DIRECTORY ${PROJECT_BINARY_DIR})
endfunction()
