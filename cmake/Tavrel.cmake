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

# Test programs are built without optimisation in optimised builds: the code under test comes from the
# libraries, built as the build type says, and a test file compiles about four times faster at -O0
# (test files are most of what a clean build compiles).
function(tavrel_test_flags name)
  target_compile_options(${name} PRIVATE $<$<CONFIG:RelWithDebInfo,Release,MinSizeRel>:-O0>)
endfunction()

# tavrel_unit_test(name SOURCES ... [DEPS ...] [SINGLE_THREADED])
#   A GoogleTest executable; its cases are registered with ctest under the label "unit", which the
#   sanitizer builds run. SINGLE_THREADED (code no two threads ever run at once) makes the label
#   "unit-single-threaded": still a unit test, but left out of the ThreadSanitizer run.
function(tavrel_unit_test name)
  cmake_parse_arguments(A "SINGLE_THREADED" "TIMEOUT" "SOURCES;DEPS" ${ARGN})
  set(label unit)
  if(A_SINGLE_THREADED)
    set(label unit-single-threaded)
  endif()
  if(NOT A_TIMEOUT)
    set(A_TIMEOUT 300)
  endif()
  add_executable(${name} ${A_SOURCES})
  target_include_directories(${name} PRIVATE ${PROJECT_SOURCE_DIR}/src ${PROJECT_SOURCE_DIR})
  target_link_libraries(${name} PRIVATE ${A_DEPS} GTest::gtest GTest::gtest_main GTest::gmock Threads::Threads)
  tavrel_test_flags(${name})
  gtest_discover_tests(${name} PROPERTIES LABELS ${label} TIMEOUT ${A_TIMEOUT} DISCOVERY_TIMEOUT 60)
endfunction()

# tavrel_e2e_test(name SOURCES ... [DEPS ...] [BULK])
#   A GoogleTest executable that starts real programs; label "e2e". Program paths are passed
#   through the environment (TAVREL_BIN_DIR). BULK (tests that move large trees or files: their threads
#   are those the other end-to-end tests run) labels them "e2e-bulk" instead, which the ThreadSanitizer run
#   leaves out: under it such a test takes tens of minutes.
function(tavrel_e2e_test name)
  cmake_parse_arguments(A "BULK" "TIMEOUT" "SOURCES;DEPS" ${ARGN})
  set(label e2e)
  if(A_BULK)
    set(label e2e-bulk)  # still selected by -L e2e, which is a regular expression
  endif()
  if(NOT A_TIMEOUT)
    set(A_TIMEOUT 600)
  endif()
  add_executable(${name} ${A_SOURCES})
  target_include_directories(${name} PRIVATE ${PROJECT_SOURCE_DIR}/src ${PROJECT_SOURCE_DIR})
  target_link_libraries(${name} PRIVATE ${A_DEPS} GTest::gtest GTest::gtest_main GTest::gmock Threads::Threads)
  tavrel_test_flags(${name})
  gtest_discover_tests(${name} PROPERTIES LABELS ${label} TIMEOUT ${A_TIMEOUT}
    ENVIRONMENT "TAVREL_BIN_DIR=${PROJECT_BINARY_DIR}/bin" DISCOVERY_TIMEOUT 60)
endfunction()


