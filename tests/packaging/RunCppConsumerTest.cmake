# Installs a build tree into a scratch prefix and builds the C++ consumer (cpp/consumer.cpp)
# against it twice, with "pkg-config --cflags --libs HalvosCore" alone and with
# find_package(HalvosCore) alone; each build calls a Python xmlrpc.server that serves exactly its
# requests and hands over its port through a pipe.
# Inputs (-D): BINARY_DIR (the build tree), SOURCE_DIR (this folder), WORK_DIR (scratch),
# CXX_COMPILER, CXX_FLAGS (e.g. the sanitizer flags the libraries were built with), LIBDIR,
# PYTHON, PEER (tests/support/xmlrpc_server.py).
cmake_minimum_required(VERSION 3.22)

function(run)
  execute_process(COMMAND ${ARGV} RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
  message("${out}${err}")
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "failed (${rc}): ${ARGV}")
  endif()
endfunction()

# call_peer(PROGRAM): PROGRAM reads the peer's "PORT <n>" line on its standard input.
function(call_peer program)
  execute_process(COMMAND ${PYTHON} ${PEER} --wire-types --requests 4 COMMAND ${program}
                  RESULTS_VARIABLE rcs OUTPUT_VARIABLE out ERROR_VARIABLE err TIMEOUT 120)
  message("${out}${err}")
  if(NOT rcs STREQUAL "0;0")
    message(FATAL_ERROR "failed (${rcs}): ${program} against ${PEER}")
  endif()
endfunction()

set(prefix ${WORK_DIR}/prefix)
file(REMOVE_RECURSE ${WORK_DIR})
file(MAKE_DIRECTORY ${WORK_DIR})
run(${CMAKE_COMMAND} --install ${BINARY_DIR} --prefix ${prefix})
separate_arguments(cxxflags UNIX_COMMAND "${CXX_FLAGS}")
set(ENV{LD_LIBRARY_PATH} ${prefix}/${LIBDIR})

# 1. pkg-config alone
find_program(PKG_CONFIG pkg-config REQUIRED)
set(ENV{PKG_CONFIG_PATH} ${prefix}/${LIBDIR}/pkgconfig)
execute_process(COMMAND ${PKG_CONFIG} --cflags --libs HalvosCore OUTPUT_VARIABLE pc RESULT_VARIABLE rc
                OUTPUT_STRIP_TRAILING_WHITESPACE)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "pkg-config --cflags --libs HalvosCore failed")
endif()
separate_arguments(pc UNIX_COMMAND "${pc}")
run(${CXX_COMPILER} -std=c++17 -Wall -Wextra -Wpedantic -Werror ${cxxflags} ${SOURCE_DIR}/cpp/consumer.cpp ${pc}
    -o ${WORK_DIR}/cpp_consumer_pkgconfig)
call_peer(${WORK_DIR}/cpp_consumer_pkgconfig)

# 2. find_package(HalvosCore) alone
run(${CMAKE_COMMAND} -S ${SOURCE_DIR}/cpp -B ${WORK_DIR}/cmake-build -DCMAKE_PREFIX_PATH=${prefix}
    -DCMAKE_CXX_COMPILER=${CXX_COMPILER} "-DCMAKE_CXX_FLAGS=${CXX_FLAGS}")
run(${CMAKE_COMMAND} --build ${WORK_DIR}/cmake-build)
call_peer(${WORK_DIR}/cmake-build/cpp_consumer)

file(REMOVE_RECURSE ${WORK_DIR})
