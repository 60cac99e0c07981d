# The build as consumers embed it: every documented combination of the build options
# configures, and a project that adds our tree with FetchContent (the minimal build: no tests,
# tools or examples, which is the default for a subproject) or with add_subdirectory links
# HalvosCore::HalvosCore; the FetchContent one is built and its program run.
# Inputs (-D): SOURCE_DIR (the project's tree), WORK_DIR (scratch), EXAMPLE, C_COMPILER, CXX_COMPILER.
cmake_minimum_required(VERSION 3.22)

function(run)
  execute_process(COMMAND ${ARGV} RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
  if(NOT rc EQUAL 0)
    message("${out}${err}")
    message(FATAL_ERROR "failed (${rc}): ${ARGV}")
  endif()
endfunction()

file(REMOVE_RECURSE ${WORK_DIR})
set(compilers -DCMAKE_C_COMPILER=${C_COMPILER} -DCMAKE_CXX_COMPILER=${CXX_COMPILER} -G Ninja)
find_program(CCACHE ccache)
if(CCACHE)
  list(APPEND compilers -DCMAKE_C_COMPILER_LAUNCHER=${CCACHE} -DCMAKE_CXX_COMPILER_LAUNCHER=${CCACHE})
endif()

# tests / tools / examples / benchmarks, one row each: the minimal build, each piece alone, all.
foreach(row "OFF;OFF;OFF;OFF" "ON;OFF;OFF;OFF" "OFF;ON;OFF;OFF" "OFF;OFF;ON;OFF" "ON;ON;ON;ON")
  list(GET row 0 tests)
  list(GET row 1 tools)
  list(GET row 2 examples)
  list(GET row 3 bench)
  string(REPLACE ";" "-" name "${row}")
  message("configure: tests ${tests}, tools ${tools}, examples ${examples}, bench ${bench}")
  run(${CMAKE_COMMAND} -S ${SOURCE_DIR} -B ${WORK_DIR}/options-${name} ${compilers}
      -DHV_BUILD_TESTS=${tests} -DHV_BUILD_TOOLS=${tools} -DHV_BUILD_EXAMPLES=${examples}
      -DHV_BUILD_BENCH=${bench})
endforeach()

set(consumer ${CMAKE_CURRENT_LIST_DIR}/subproject)
run(${CMAKE_COMMAND} -S ${consumer} -B ${WORK_DIR}/subdirectory ${compilers} -DMODE=subdirectory
    -DHV_SOURCE=${SOURCE_DIR} -DEXAMPLE=${EXAMPLE})
run(${CMAKE_COMMAND} -S ${consumer} -B ${WORK_DIR}/fetch ${compilers} -DMODE=fetch
    -DHV_SOURCE=${SOURCE_DIR} -DEXAMPLE=${EXAMPLE})
run(${CMAKE_COMMAND} --build ${WORK_DIR}/fetch)
run(${WORK_DIR}/fetch/example)

file(REMOVE_RECURSE ${WORK_DIR})
