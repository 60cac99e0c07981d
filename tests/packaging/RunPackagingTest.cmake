# Installs a build tree into a scratch prefix and builds the consumer program against it, once
# with pkg-config and once with find_package(HalvosCore), running each result.
# Inputs (-D): BINARY_DIR (the build tree), SOURCE_DIR (this folder), WORK_DIR (scratch),
# C_COMPILER, C_FLAGS (e.g. the sanitizer flags the libraries were built with), LIBDIR.
cmake_minimum_required(VERSION 3.22)

function(run)
  execute_process(COMMAND ${ARGV} RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
  message("${out}${err}")
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "failed (${rc}): ${ARGV}")
  endif()
endfunction()

set(prefix ${WORK_DIR}/prefix)
file(REMOVE_RECURSE ${WORK_DIR})
file(MAKE_DIRECTORY ${WORK_DIR})
run(${CMAKE_COMMAND} --install ${BINARY_DIR} --prefix ${prefix})
separate_arguments(cflags UNIX_COMMAND "${C_FLAGS}")
set(ENV{LD_LIBRARY_PATH} ${prefix}/${LIBDIR})

# 1. pkg-config
find_program(PKG_CONFIG pkg-config REQUIRED)
set(ENV{PKG_CONFIG_PATH} ${prefix}/${LIBDIR}/pkgconfig)
execute_process(COMMAND ${PKG_CONFIG} --cflags --libs RtCore OUTPUT_VARIABLE pc RESULT_VARIABLE rc
                OUTPUT_STRIP_TRAILING_WHITESPACE)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "pkg-config does not know RtCore")
endif()
message("pkg-config --cflags --libs RtCore: ${pc}")
separate_arguments(pc UNIX_COMMAND "${pc}")
run(${C_COMPILER} -std=c11 -Wall -Wextra -Wpedantic -Werror ${cflags} ${SOURCE_DIR}/consumer.c ${pc}
    -o ${WORK_DIR}/consumer-pkgconfig)
run(${WORK_DIR}/consumer-pkgconfig)

# 2. find_package(HalvosCore)
run(${CMAKE_COMMAND} -S ${SOURCE_DIR} -B ${WORK_DIR}/cmake-build -DCMAKE_PREFIX_PATH=${prefix}
    -DCMAKE_C_COMPILER=${C_COMPILER} "-DCMAKE_C_FLAGS=${C_FLAGS}")
run(${CMAKE_COMMAND} --build ${WORK_DIR}/cmake-build)
run(${WORK_DIR}/cmake-build/consumer)

file(REMOVE_RECURSE ${WORK_DIR})
