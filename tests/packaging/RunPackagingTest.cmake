# Installs a build tree into a scratch prefix and builds programs against it, running each:
# the RtCore consumer and an example program (EXAMPLE, which runs without a server) with
# pkg-config, the example once more linked with the static libraries, both with
# find_package(HalvosCore). Then, with an empty environment, the installed hvcall and hvserve
# and a program that links libHalvosCore by a run path to it alone: each must find every
# library it needs by itself.
# Inputs (-D): BINARY_DIR (the build tree), SOURCE_DIR (this folder), WORK_DIR (scratch),
# C_COMPILER, C_FLAGS (e.g. the sanitizer flags the libraries were built with), LIBDIR,
# MANDIR, EXAMPLE.
cmake_minimum_required(VERSION 3.22)
include(${CMAKE_CURRENT_LIST_DIR}/PackagingCommon.cmake)

set(prefix ${WORK_DIR}/prefix)
file(REMOVE_RECURSE ${WORK_DIR})
file(MAKE_DIRECTORY ${WORK_DIR})
run(${CMAKE_COMMAND} --install ${BINARY_DIR} --prefix ${prefix})

build_consumers(${prefix} ${LIBDIR} install)

# The libraries find each other: the example names only libHalvosCore and libRtCore, so
# libRtNetwork is found through libHalvosCore's own run path or not at all.
set(ENV{PKG_CONFIG_PATH} ${prefix}/${LIBDIR}/pkgconfig)
pkg_flags(pc --cflags RtCore)
run(${C_COMPILER} -std=c11 ${cflags} ${pc} ${EXAMPLE} -L${prefix}/${LIBDIR} -lHalvosCore -lRtCore
    -Wl,--as-needed -Wl,-rpath,${prefix}/${LIBDIR} -Wl,--enable-new-dtags -o ${WORK_DIR}/example-runpath)
run_clean(${WORK_DIR}/example-runpath)

if(EXISTS ${BINARY_DIR}/tools/hvcall)
  foreach(tool hvcall hvserve)
    run_clean(${prefix}/bin/${tool} --help)
    if(NOT EXISTS ${prefix}/${MANDIR}/man1/${tool}.1)
      message(FATAL_ERROR "${tool}.1 is not installed in ${MANDIR}/man1")
    endif()
  endforeach()
endif()

file(REMOVE_RECURSE ${WORK_DIR})
