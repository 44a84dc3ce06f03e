# tav_library(NAME SOURCES... [DEPS target...])
# One library per source directory; every library sees src/ as its include root,
# so headers are named by directory ("platform/platform.h").
function(tav_library name)
  cmake_parse_arguments(TL "" "" "SOURCES;DEPS" ${ARGN})
  add_library(${name} STATIC ${TL_SOURCES})
  target_include_directories(${name} PUBLIC ${PROJECT_SOURCE_DIR}/src)
  if(TL_DEPS)
    target_link_libraries(${name} PUBLIC ${TL_DEPS})
  endif()
endfunction()

# tav_test(NAME SOURCES... DEPS target... [PROPERTIES NAME VALUE...])
# A GoogleTest executable whose tests run one per process under CTest.
function(tav_test name)
  cmake_parse_arguments(TT "" "" "SOURCES;DEPS;PROPERTIES" ${ARGN})
  add_executable(${name} ${TT_SOURCES} ${PROJECT_SOURCE_DIR}/tests/load_guard_release.cpp)
  target_include_directories(${name} PRIVATE ${PROJECT_SOURCE_DIR}/tests ${PROJECT_SOURCE_DIR})
  # The load guard: nothing built at load time reaches the host.
  target_link_libraries(${name} PRIVATE ${TT_DEPS} tav_load_guard GTest::gtest GTest::gtest_main)
  if(TT_PROPERTIES)
    gtest_discover_tests(${name} DISCOVERY_TIMEOUT 60 PROPERTIES ${TT_PROPERTIES})
  else()
    gtest_discover_tests(${name} DISCOVERY_TIMEOUT 60)
  endif()
endfunction()
