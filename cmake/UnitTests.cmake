# GoogleTest is built from its packaged source, so that it carries the same sanitizers and target as the tests.
set(gmock_build_tests OFF)
set(INSTALL_GTEST OFF CACHE BOOL "" FORCE)
set(BUILD_GMOCK OFF CACHE BOOL "" FORCE)
add_subdirectory(/usr/src/googletest ${CMAKE_BINARY_DIR}/googletest EXCLUDE_FROM_ALL)
if(REFLECTORB_SANITIZE)
  target_compile_options(gtest PRIVATE -fsanitize=${REFLECTORB_SANITIZE})
endif()
include(GoogleTest)

# reflectorb_unit_test(NAME dir...): one test program from all *_test.cpp below these folders of src/.
function(reflectorb_unit_test name)
  set(sources)
  foreach(folder IN LISTS ARGN)
    file(GLOB_RECURSE found CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/src/${folder}/*_test.cpp)
    list(APPEND sources ${found})
  endforeach()
  if(NOT sources)
    return()
  endif()
  file(GLOB helpers CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/tests/support/*.cpp
    ${PROJECT_SOURCE_DIR}/src/platform/transport/testing/*.cpp)
  add_executable(${name} ${sources} ${helpers} $<TARGET_OBJECTS:reflectorb_objects>)
  target_include_directories(${name} PRIVATE ${PROJECT_SOURCE_DIR}/src ${PROJECT_SOURCE_DIR}/tests)
  target_link_libraries(${name} PRIVATE reflectorb_flags gtest gtest_main)
  target_link_options(${name} PRIVATE -rdynamic)
  if(REFLECTORB_PRECOMPILED) # not in dev, where a missing include must show
    get_property(first GLOBAL PROPERTY reflectorb_first_unit_test)
    if(first)
      target_precompile_headers(${name} REUSE_FROM ${first})
    else()
      set_property(GLOBAL PROPERTY reflectorb_first_unit_test ${name})
      target_precompile_headers(${name} PRIVATE <gtest/gtest.h> <algorithm> <atomic> <functional> <list> <map> <memory>
        <random> <set> <string> <vector>)
    endif()
  endif()
  if(REFLECTORB_SANITIZE STREQUAL "thread") # see tests/support/HeapProbe.cpp
    target_link_options(${name} PRIVATE
      "-Wl,--wrap=calloc,--wrap=_Znwm,--wrap=_Znam,--wrap=_ZnwmRKSt9nothrow_t,--wrap=_ZnamRKSt9nothrow_t")
  endif()
  gtest_discover_tests(${name} TEST_PREFIX "${name}/" DISCOVERY_TIMEOUT 60 DISCOVERY_MODE PRE_TEST
    PROPERTIES TIMEOUT 120 LABELS unit)
endfunction()

reflectorb_unit_test(platform_test platform/posix)
reflectorb_unit_test(transport_test platform/transport)
reflectorb_unit_test(threads_test threads)
reflectorb_unit_test(rmi_test rmi)
reflectorb_unit_test(orb_test orb)
reflectorb_unit_test(objects_test objects)
reflectorb_unit_test(reflection_test reflection)
reflectorb_unit_test(observation_test observation)
