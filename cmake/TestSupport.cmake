# GoogleTest programs of the project: the shared test support library and qlmr_add_gtest.
# Included by tests/CMakeLists.txt.
include(GoogleTest)
# The repository's root, whichever project includes this (tests run from there).
get_filename_component(QLMR_SOURCE_ROOT ${CMAKE_CURRENT_LIST_DIR}/.. ABSOLUTE)
set(_qlmr_tests_dir ${QLMR_SOURCE_ROOT}/tests)

# Shared test support: log capture through liblog's custom logger hook.
add_library(qlmr_test_support STATIC ${_qlmr_tests_dir}/support/LogCapture.cpp)
target_include_directories(qlmr_test_support PUBLIC ${_qlmr_tests_dir}/support)
target_link_libraries(qlmr_test_support PUBLIC android::log GTest::gtest Threads::Threads)
qlmr_strict(qlmr_test_support)

# qlmr_add_gtest(<name> SOURCES <files...> LIBS <targets...> [TIMEOUT <s>] [LABELS <labels...>])
# One test program per folder of behaviour; every case is registered with ctest (in a cross
# build, listed and run through CMAKE_CROSSCOMPILING_EMULATOR) and labelled with its program's
# name (ctest -L selects whole suites). Cases labelled "long" are left out of the test presets
# (run them with `ctest --test-dir build/default -L long`).
function(qlmr_add_gtest name)
  cmake_parse_arguments(ARG "" "TIMEOUT" "SOURCES;LIBS;LABELS" ${ARGN})
  if(NOT ARG_TIMEOUT)
    set(ARG_TIMEOUT 120)
  endif()
  if(CMAKE_CROSSCOMPILING)
    # Under the emulator everything, GL through llvmpipe included, runs several times slower.
    math(EXPR ARG_TIMEOUT "${ARG_TIMEOUT} * 4")
  endif()
  add_executable(${name} ${ARG_SOURCES})
  target_link_libraries(${name} PRIVATE ${ARG_LIBS} qlmr_test_support GTest::gtest GTest::gmock GTest::gtest_main)
  qlmr_strict(${name})
  set(labels ${name} ${ARG_LABELS})
  gtest_discover_tests(${name}
    DISCOVERY_TIMEOUT 60
    PROPERTIES TIMEOUT ${ARG_TIMEOUT} LABELS "${labels}"
    WORKING_DIRECTORY ${QLMR_SOURCE_ROOT})
endfunction()
