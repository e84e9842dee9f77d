# Helpers shared by every folder's CMakeLists.txt.
include(GoogleTest)

# tavrel_library(name SOURCES ... [DEPS ...])
#   A static library whose headers are included as "folder/header.h" from src/ (or the repo root).
function(tavrel_library name)
  cmake_parse_arguments(A "" "" "SOURCES;DEPS" ${ARGN})
  add_library(${name} STATIC ${A_SOURCES})
  target_include_directories(${name} PUBLIC ${PROJECT_SOURCE_DIR}/src ${PROJECT_SOURCE_DIR})
  target_link_libraries(${name} PUBLIC ${A_DEPS} Threads::Threads)
endfunction()

# Test programs are built without optimisation in optimised builds and in the ThreadSanitizer build
# (which compiles everything at -O1): the code under test comes from the libraries, built as the build
# type says, and a test file compiles about four times faster at -O0, a quarter faster under
# ThreadSanitizer (test files are most of what a clean build compiles).
function(tavrel_test_flags name)
  if(TAVREL_TSAN)
    target_compile_options(${name} PRIVATE -O0)
  else()
    target_compile_options(${name} PRIVATE $<$<CONFIG:RelWithDebInfo,Release,MinSizeRel>:-O0>)
  endif()
endfunction()

# GoogleTest's headers, parsed once for every test program: one precompiled header that each test
# target reuses (it saved 0.3 to 2 s of each of six test files measured at -O0). The target that owns
# it compiles an empty file with the test programs' flags; definitions a test target adds on top
# (TAVREL_PRODUCT_DIR, cpp-httplib's) do not touch these headers, and both compilers accept them.
set(TAVREL_TEST_PCH_SOURCE ${PROJECT_BINARY_DIR}/tavrel_test_pch.cpp)
if(NOT EXISTS ${TAVREL_TEST_PCH_SOURCE})
  file(WRITE ${TAVREL_TEST_PCH_SOURCE} "// The owner of the test programs' precompiled header.\n")
endif()
add_library(tavrel_test_pch OBJECT ${TAVREL_TEST_PCH_SOURCE})
target_link_libraries(tavrel_test_pch PRIVATE GTest::gtest GTest::gmock Threads::Threads)
tavrel_test_flags(tavrel_test_pch)
target_precompile_headers(tavrel_test_pch PRIVATE <gtest/gtest.h> <gmock/gmock.h>)

# What every test program has: GoogleTest, the shared precompiled header, the test flags.
function(tavrel_test_program name)
  target_include_directories(${name} PRIVATE ${PROJECT_SOURCE_DIR}/src ${PROJECT_SOURCE_DIR})
  target_link_libraries(${name} PRIVATE GTest::gtest GTest::gtest_main GTest::gmock Threads::Threads)
  tavrel_test_flags(${name})
  target_precompile_headers(${name} REUSE_FROM tavrel_test_pch)
endfunction()

# Scheduling: ctest starts the tests of highest COST first, so in a parallel run the long ones (the bulk
# end-to-end tests above all, which take one to two minutes) do not start last and hold the run open
# alone. A fresh build has no timings of its own to go by.
#
# tavrel_unit_test(name SOURCES ... [DEPS ...] [SINGLE_THREADED] [TIMEOUT s] [COST n])
#   A GoogleTest executable; its cases are registered with ctest under the label "unit", which the
#   sanitizer builds run. SINGLE_THREADED (code no two threads ever run at once) makes the label
#   "unit-single-threaded": still a unit test, but left out of the ThreadSanitizer run. COST (default 0)
#   for a program with cases that take many seconds.
function(tavrel_unit_test name)
  cmake_parse_arguments(A "SINGLE_THREADED" "TIMEOUT;COST" "SOURCES;DEPS" ${ARGN})
  set(label unit)
  if(A_SINGLE_THREADED)
    set(label unit-single-threaded)
  endif()
  if(NOT A_TIMEOUT)
    set(A_TIMEOUT 300)
  endif()
  add_executable(${name} ${A_SOURCES})
  target_link_libraries(${name} PRIVATE ${A_DEPS})
  tavrel_test_program(${name})
  if(NOT A_COST)
    set(A_COST 0)
  endif()
  gtest_discover_tests(${name} PROPERTIES LABELS ${label} TIMEOUT ${A_TIMEOUT} COST ${A_COST}
    DISCOVERY_TIMEOUT 60)
endfunction()

# tavrel_e2e_test(name SOURCES ... [DEPS ...] [BULK])
#   A GoogleTest executable that starts real programs; label "e2e". Program paths are passed
#   through the environment (TAVREL_BIN_DIR). BULK (tests that move large trees or files: their threads
#   are those the other end-to-end tests run) labels them "e2e-bulk" instead, which the ThreadSanitizer run
#   leaves out: under it such a test takes tens of minutes.
function(tavrel_e2e_test name)
  cmake_parse_arguments(A "BULK" "TIMEOUT" "SOURCES;DEPS" ${ARGN})
  set(label e2e)
  set(cost 100)
  if(A_BULK)
    set(label e2e-bulk)  # still selected by -L e2e, which is a regular expression
    set(cost 1000)
  endif()
  if(NOT A_TIMEOUT)
    set(A_TIMEOUT 600)
  endif()
  add_executable(${name} ${A_SOURCES})
  target_link_libraries(${name} PRIVATE ${A_DEPS})
  tavrel_test_program(${name})
  gtest_discover_tests(${name} PROPERTIES LABELS ${label} TIMEOUT ${A_TIMEOUT} COST ${cost}
    ENVIRONMENT "TAVREL_BIN_DIR=${PROJECT_BINARY_DIR}/bin" DISCOVERY_TIMEOUT 60)
endfunction()


