# Common settings for every target of the project: C++20, warnings as errors,
# hidden symbols (only what is marked for export leaves the shared library).
function(kiv_settings target)
  target_compile_features(${target} PUBLIC cxx_std_20)
  target_compile_options(${target} PRIVATE -Wall -Wextra -Werror)
  set_target_properties(${target} PROPERTIES
    CXX_VISIBILITY_PRESET hidden
    VISIBILITY_INLINES_HIDDEN ON
    POSITION_INDEPENDENT_CODE ON)
endfunction()

# The include layout: "Kiv/..." and "KivSegmentSecurity/..." from the top of
# the tree, platform headers as "Zop/...", "Routing/..." and so on. Installed,
# all of them sit under one directory of their own (KIV_INSTALL_INCLUDEDIR),
# so that generic names such as Trace/ or Routing/ never land in a shared
# include directory.
include(GNUInstallDirs)
set(KIV_INSTALL_INCLUDEDIR ${CMAKE_INSTALL_INCLUDEDIR}/KivSegmentPrefixProcessor)
function(kiv_include_layout target scope)
  target_include_directories(${target} ${scope}
    $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}>
    $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/platform>
    $<INSTALL_INTERFACE:${KIV_INSTALL_INCLUDEDIR}>)
endfunction()

# kiv_library(NAME SOURCES... [DEPS targets...])
function(kiv_library name)
  cmake_parse_arguments(ARG "" "" "SOURCES;DEPS" ${ARGN})
  add_library(${name} STATIC ${ARG_SOURCES})
  kiv_settings(${name})
  kiv_include_layout(${name} PUBLIC)
  if(ARG_DEPS)
    target_link_libraries(${name} PUBLIC ${ARG_DEPS})
  endif()
endfunction()

# kiv_test(NAME SOURCES... [DEPS targets...]): one GoogleTest executable, its
# tests registered with CTest one by one.
function(kiv_test name)
  cmake_parse_arguments(ARG "" "" "SOURCES;DEPS" ${ARGN})
  add_executable(${name} ${ARG_SOURCES})
  kiv_settings(${name})
  target_link_libraries(${name} PRIVATE ${ARG_DEPS} GTest::gmock GTest::gtest_main)
  gtest_discover_tests(${name} DISCOVERY_TIMEOUT 60 PROPERTIES TIMEOUT 300)
endfunction()

# kiv_fuzzer(NAME SOURCE DEPS...): a libFuzzer target (fuzz preset only).
function(kiv_fuzzer name)
  cmake_parse_arguments(ARG "" "" "SOURCES;DEPS" ${ARGN})
  add_executable(${name} ${ARG_SOURCES})
  kiv_settings(${name})
  target_link_libraries(${name} PRIVATE ${ARG_DEPS})
  target_link_options(${name} PRIVATE -fsanitize=fuzzer)
  set_property(GLOBAL APPEND PROPERTY KIV_FUZZERS ${name})
  # The fuzz preset builds only the fuzzers (and what they link), not the
  # instrumented kivsim and dataplane beside them.
  if(NOT TARGET fuzzers)
    add_custom_target(fuzzers)
  endif()
  add_dependencies(fuzzers ${name})
endfunction()
