# Compile settings shared by every target of the project.
add_library(hv_options INTERFACE)
target_compile_options(hv_options INTERFACE
  -Wall -Wextra -Wpedantic -Wno-unused-parameter
  $<$<COMPILE_LANGUAGE:CXX>:-Wnon-virtual-dtor>
  $<$<BOOL:${HV_WERROR}>:-Werror>)
if(HV_SANITIZE)
  target_compile_options(hv_options INTERFACE
    -fsanitize=address,undefined -fno-omit-frame-pointer -fno-sanitize-recover=all)
  target_link_options(hv_options INTERFACE -fsanitize=address,undefined)
endif()
if(HV_TSAN)
  if(HV_SANITIZE)
    message(FATAL_ERROR "HV_TSAN and HV_SANITIZE cannot be combined")
  endif()
  target_compile_options(hv_options INTERFACE -fsanitize=thread -fno-omit-frame-pointer)
  target_link_options(hv_options INTERFACE -fsanitize=thread)
endif()
# libFuzzer builds: every object gets the coverage instrumentation that guides the fuzzer; only
# the fuzz targets themselves link libFuzzer's main (fuzz/CMakeLists.txt).
if(HV_BUILD_FUZZ AND CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
  target_compile_options(hv_options INTERFACE -fsanitize=fuzzer-no-link)
endif()

# The environment of every test: LeakSanitizer on (gcc's and clang's ASan enable it by default
# on Linux; said here so that nobody's ASAN_OPTIONS turns it off unnoticed), with the one
# suppression file that lists the leaks the library keeps on purpose.
set(HV_TEST_ENVIRONMENT
    "HV_SOURCE_DIR=${PROJECT_SOURCE_DIR}" "HV_BINARY_DIR=${PROJECT_BINARY_DIR}"
    "ASAN_OPTIONS=detect_leaks=1"
    "LSAN_OPTIONS=suppressions=${PROJECT_SOURCE_DIR}/tests/lsan.supp:print_suppressions=0"
    # Under ThreadSanitizer a data race fails the test that ran into it.
    "TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1")

# hv_add_product(NAME DEPS...): one product made of NAME/Source/*.{c,cpp}.
# Sources compile once (hidden visibility, PIC) into NAME_obj; NAME is the
# installed shared library, NAME_static the library tests link, where every
# internal symbol is reachable.
function(hv_add_product name)
  cmake_parse_arguments(P "" "" "PUBLIC_DEPS;PRIVATE_DEPS" ${ARGN})
  file(GLOB_RECURSE srcs CONFIGURE_DEPENDS
       ${CMAKE_CURRENT_SOURCE_DIR}/Source/*.cpp ${CMAKE_CURRENT_SOURCE_DIR}/Source/*.c)
  if(NOT srcs)
    message(STATUS "${name}: no sources yet, not built")
    return()
  endif()
  add_library(${name}_obj OBJECT ${srcs})
  set_target_properties(${name}_obj PROPERTIES
    POSITION_INDEPENDENT_CODE ON
    CXX_VISIBILITY_PRESET hidden C_VISIBILITY_PRESET hidden VISIBILITY_INLINES_HIDDEN ON)
  string(TOUPPER ${name} upper)
  target_compile_definitions(${name}_obj PRIVATE ${upper}_BUILDING=1)
  target_include_directories(${name}_obj PUBLIC
    $<BUILD_INTERFACE:${CMAKE_CURRENT_SOURCE_DIR}/Headers>
    $<BUILD_INTERFACE:${PROJECT_BINARY_DIR}/generated>
    PRIVATE ${CMAKE_CURRENT_SOURCE_DIR}/Source)
  target_link_libraries(${name}_obj PUBLIC ${P_PUBLIC_DEPS} PRIVATE hv_options ${P_PRIVATE_DEPS})

  add_library(${name} SHARED $<TARGET_OBJECTS:${name}_obj>)
  # The names an installed package exports, also in the build tree, so that a project that
  # adds ours with add_subdirectory or FetchContent links the same HalvosCore::X targets.
  add_library(HalvosCore::${name} ALIAS ${name})
  set_target_properties(${name} PROPERTIES VERSION ${PROJECT_VERSION} SOVERSION ${PROJECT_VERSION_MAJOR})
  # An installed library finds the project's other libraries beside it.
  set_target_properties(${name} PROPERTIES INSTALL_RPATH "$ORIGIN")
  target_include_directories(${name} PUBLIC
    $<BUILD_INTERFACE:${CMAKE_CURRENT_SOURCE_DIR}/Headers/>
    $<BUILD_INTERFACE:${PROJECT_BINARY_DIR}/generated>
    $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)
  target_link_libraries(${name} PRIVATE hv_options ${P_PRIVATE_DEPS})
  foreach(dep ${P_PUBLIC_DEPS})
    target_link_libraries(${name} PUBLIC ${dep})
  endforeach()

  add_library(${name}_static STATIC $<TARGET_OBJECTS:${name}_obj>)
  target_include_directories(${name}_static PUBLIC
    ${CMAKE_CURRENT_SOURCE_DIR}/Headers ${CMAKE_CURRENT_SOURCE_DIR}/Source ${PROJECT_BINARY_DIR}/generated)
  set(static_deps)
  foreach(dep ${P_PUBLIC_DEPS})
    list(APPEND static_deps ${dep}_static)
  endforeach()
  target_link_libraries(${name}_static PUBLIC ${static_deps} ${P_PRIVATE_DEPS} hv_options)
endfunction()

# hv_add_test_suite(NAME DIR LIBS...): one GoogleTest executable from DIR/*.cpp (or from the
# single file DIR), linked with the test servers of tests/support when they are built.
function(hv_add_test_suite name dir)
  if(EXISTS ${dir} AND NOT IS_DIRECTORY ${dir})
    set(srcs ${dir})
  else()
    file(GLOB srcs CONFIGURE_DEPENDS ${dir}/*.cpp ${dir}/*.c)
  endif()
  if(NOT srcs)
    return()
  endif()
  add_executable(${name} ${srcs})
  target_link_libraries(${name} PRIVATE ${ARGN} GTest::gtest_main GTest::gmock hv_options)
  if(TARGET hvtestsupport)
    target_link_libraries(${name} PRIVATE hvtestsupport)
  endif()
  target_compile_definitions(${name} PRIVATE
    HV_SOURCE_DIR="${PROJECT_SOURCE_DIR}" HV_BINARY_DIR="${PROJECT_BINARY_DIR}")
  gtest_discover_tests(${name} DISCOVERY_MODE PRE_TEST DISCOVERY_TIMEOUT 60
                       PROPERTIES ENVIRONMENT "${HV_TEST_ENVIRONMENT}")
endfunction()
