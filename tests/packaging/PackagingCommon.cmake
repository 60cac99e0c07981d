# Helpers of the packaging tests (cmake -P scripts): running commands and building the consumer
# programs against an installed tree, wherever it lies.
# Inputs the including script has (-D): SOURCE_DIR (this folder), WORK_DIR (scratch), C_COMPILER,
# C_FLAGS (e.g. the sanitizer flags the libraries were built with), EXAMPLE.

# run(COMMAND...): runs it, shows its output, and fails the test when it fails.
function(run)
  execute_process(COMMAND ${ARGV} RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
  message("${out}${err}")
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "failed (${rc}): ${ARGV}")
  endif()
endfunction()

# run_clean(COMMAND...): runs it with an empty environment (env -i): no LD_LIBRARY_PATH, no
# PATH. Only the sanitizers' settings of the suite pass through.
function(run_clean)
  set(keep)
  foreach(var ASAN_OPTIONS LSAN_OPTIONS UBSAN_OPTIONS)
    if(DEFINED ENV{${var}})
      list(APPEND keep "${var}=$ENV{${var}}")
    endif()
  endforeach()
  run(env -i ${keep} ${ARGV})
endfunction()

find_program(PKG_CONFIG pkg-config REQUIRED)
separate_arguments(cflags UNIX_COMMAND "${C_FLAGS}")

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

# build_consumers(PREFIX LIBDIR TAG): builds and runs the RtCore consumer and the example against
# the tree installed under PREFIX (libraries in PREFIX/LIBDIR), with pkg-config, with the static
# libraries, and with find_package(HalvosCore). TAG names this run's outputs in WORK_DIR.
function(build_consumers prefix libdir tag)
  set(ENV{LD_LIBRARY_PATH} ${prefix}/${libdir})
  set(ENV{PKG_CONFIG_PATH} ${prefix}/${libdir}/pkgconfig)
  pkg_flags(pc --cflags --libs RtCore)
  compile_and_run(${tag}-consumer-pkgconfig ${SOURCE_DIR}/consumer.c ${pc})
  pkg_flags(pc --cflags --libs HalvosCore)
  compile_and_run(${tag}-example-pkgconfig ${EXAMPLE} ${pc})

  # Our static libraries, with the system libraries they need linked dynamically as usual:
  # "pkg-config --static" would also ask for libcurl's own static dependencies, which few
  # systems install. "-l:libX.a" makes the linker take the archive although the shared library
  # lies beside it.
  pkg_flags(pc --cflags --libs HalvosCore expat icu-uc icu-i18n libcurl libmicrohttpd)
  list(TRANSFORM pc REPLACE "^-l(HalvosCore|RtNetwork|RtCore)$" "-l:lib\\1.a")
  unset(ENV{LD_LIBRARY_PATH})
  compile_and_run(${tag}-example-static ${EXAMPLE} ${pc} -lstdc++ -lpthread -lm)
  set(ENV{LD_LIBRARY_PATH} ${prefix}/${libdir})

  run(${CMAKE_COMMAND} -S ${SOURCE_DIR} -B ${WORK_DIR}/${tag}-cmake-build -DCMAKE_PREFIX_PATH=${prefix}
      -DCMAKE_C_COMPILER=${C_COMPILER} "-DCMAKE_C_FLAGS=${C_FLAGS}" -DEXAMPLE=${EXAMPLE})
  run(${CMAKE_COMMAND} --build ${WORK_DIR}/${tag}-cmake-build)
  run(${WORK_DIR}/${tag}-cmake-build/consumer)
  run(${WORK_DIR}/${tag}-cmake-build/example)
  unset(ENV{LD_LIBRARY_PATH})
  unset(ENV{PKG_CONFIG_PATH})
endfunction()
