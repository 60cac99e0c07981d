# Installs a build tree into a scratch prefix and builds programs against it, running each:
# the RtCore consumer and an example program (EXAMPLE, which runs without a server) with
# pkg-config, the example once more linked with the static libraries, both with
# find_package(HalvosCore); and the installed hvcall, which must find its libraries.
# Inputs (-D): BINARY_DIR (the build tree), SOURCE_DIR (this folder), WORK_DIR (scratch),
# C_COMPILER, C_FLAGS (e.g. the sanitizer flags the libraries were built with), LIBDIR, EXAMPLE.
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

# pkg_flags(VAR ARGS...): the flags "pkg-config ARGS" prints, as a list in VAR.
function(pkg_flags var)
  execute_process(COMMAND ${PKG_CONFIG} ${ARGN} OUTPUT_VARIABLE flags RESULT_VARIABLE rc
                  OUTPUT_STRIP_TRAILING_WHITESPACE)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "pkg-config ${ARGN} failed")
  endif()
  message("pkg-config ${ARGN}: ${flags}")
  separate_arguments(flags UNIX_COMMAND "${flags}")
  set(${var} ${flags} PARENT_SCOPE)
endfunction()

# compile_and_run(NAME SOURCE FLAGS...): builds SOURCE into NAME with warnings as errors and runs it.
function(compile_and_run name source)
  run(${C_COMPILER} -std=c11 -Wall -Wextra -Wpedantic -Werror ${cflags} ${source} ${ARGN} -o ${WORK_DIR}/${name})
  run(${WORK_DIR}/${name})
endfunction()

pkg_flags(pc --cflags --libs RtCore)
compile_and_run(consumer-pkgconfig ${SOURCE_DIR}/consumer.c ${pc})
pkg_flags(pc --cflags --libs HalvosCore)
compile_and_run(example-pkgconfig ${EXAMPLE} ${pc})

# Our static libraries, with the system libraries they need linked dynamically as usual:
# "pkg-config --static" would also ask for libcurl's own static dependencies, which few systems
# install. "-l:libX.a" makes the linker take the archive although the shared library lies beside it.
pkg_flags(pc --cflags --libs HalvosCore expat icu-uc icu-i18n libcurl)
list(TRANSFORM pc REPLACE "^-l(HalvosCore|RtNetwork|RtCore)$" "-l:lib\\1.a")
unset(ENV{LD_LIBRARY_PATH})
compile_and_run(example-static ${EXAMPLE} ${pc} -lstdc++ -lpthread -lm)
set(ENV{LD_LIBRARY_PATH} ${prefix}/${LIBDIR})

# 2. find_package(HalvosCore)
run(${CMAKE_COMMAND} -S ${SOURCE_DIR} -B ${WORK_DIR}/cmake-build -DCMAKE_PREFIX_PATH=${prefix}
    -DCMAKE_C_COMPILER=${C_COMPILER} "-DCMAKE_C_FLAGS=${C_FLAGS}" -DEXAMPLE=${EXAMPLE})
run(${CMAKE_COMMAND} --build ${WORK_DIR}/cmake-build)
run(${WORK_DIR}/cmake-build/consumer)
run(${WORK_DIR}/cmake-build/example)

# 3. The installed tools run without LD_LIBRARY_PATH: they find the libraries beside them.
unset(ENV{LD_LIBRARY_PATH})
if(EXISTS ${prefix}/bin/hvcall)
  run(${prefix}/bin/hvcall --help)
  run(${prefix}/bin/hvserve --help)
endif()

file(REMOVE_RECURSE ${WORK_DIR})
