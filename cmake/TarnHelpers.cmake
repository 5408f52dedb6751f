# Subsystems are added as their folders appear, so a partly built tree still configures.
function(tarn_add_subdirectory_if_present dir)
  if(EXISTS ${PROJECT_SOURCE_DIR}/${dir}/CMakeLists.txt)
    add_subdirectory(${PROJECT_SOURCE_DIR}/${dir})
  endif()
endfunction()

# tarn_add_library(<name> SOURCES ... [DEPS ...])
# One static library per subsystem; headers are included as "<subsystem>/<file>.h"
# relative to src/.
function(tarn_add_library name)
  cmake_parse_arguments(ARG "" "" "SOURCES;DEPS" ${ARGN})
  add_library(${name} STATIC ${ARG_SOURCES})
  target_include_directories(${name} PUBLIC ${PROJECT_SOURCE_DIR}/src)
  target_link_libraries(${name} PUBLIC ${ARG_DEPS})
endfunction()

# tarn_add_test(<name> SOURCES ... [DEPS ...])
# A GoogleTest executable registered with ctest, one ctest entry per test case.
function(tarn_add_test name)
  cmake_parse_arguments(ARG "" "" "SOURCES;DEPS" ${ARGN})
  add_executable(${name} ${ARG_SOURCES})
  target_include_directories(${name} PRIVATE ${PROJECT_SOURCE_DIR}/src ${PROJECT_SOURCE_DIR}/tests)
  target_link_libraries(${name} PRIVATE ${ARG_DEPS} tarn_test_support GTest::gmock GTest::gtest_main)
  include(GoogleTest)
  gtest_discover_tests(${name} DISCOVERY_TIMEOUT 60
    PROPERTIES ENVIRONMENT "TARN_BUILD_DIR=${PROJECT_BINARY_DIR};TARN_SOURCE_DIR=${PROJECT_SOURCE_DIR}")
endfunction()
