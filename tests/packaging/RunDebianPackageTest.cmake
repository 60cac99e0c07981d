# Builds the Debian packages of a build tree with cpack, then checks them as a user of them
# would find them: the three packages, what each holds, that together they hold every file the
# plain install has (each in one package only), their Depends, and that a program builds and runs
# against them once unpacked (dpkg-deb -x) into a scratch root.
# Inputs (-D): BINARY_DIR, SOURCE_DIR (this folder), WORK_DIR, C_COMPILER, C_FLAGS, LIBDIR,
# EXAMPLE, VERSION (the project's), MAN_DIR (the man pages' sources).
cmake_minimum_required(VERSION 3.22)
include(${CMAKE_CURRENT_LIST_DIR}/PackagingCommon.cmake)

file(REMOVE_RECURSE ${WORK_DIR})
file(MAKE_DIRECTORY ${WORK_DIR})
set(out ${WORK_DIR}/out)
set(root ${WORK_DIR}/root)
# gzip: the quickest compression dpkg-deb reads; the packages' bytes do not matter here.
run(cpack -G DEB --config ${BINARY_DIR}/CPackConfig.cmake -B ${out} -D CPACK_DEBIAN_COMPRESSION_TYPE=gzip)

set(failures)
string(REGEX REPLACE "\\." "\\\\." v "${VERSION}")
string(REGEX REPLACE "^([0-9]+).*" "\\1" major "${VERSION}")
set(lib usr/${LIBDIR})
set(runtime libhalvoscore${major})

# Each package's name, what it must hold (regular expressions over its paths, after ./), and
# what its Depends must name.
set(runtime_holds
    "${lib}/libRtCore\\.so\\.${major}" "${lib}/libRtCore\\.so\\.${v}"
    "${lib}/libRtNetwork\\.so\\.${major}" "${lib}/libRtNetwork\\.so\\.${v}"
    "${lib}/libHalvosCore\\.so\\.${major}" "${lib}/libHalvosCore\\.so\\.${v}")
set(runtime_depends "libc6" "libstdc\\+\\+6" "libexpat1" "libicu[0-9]+" "libcurl[34]" "libmicrohttpd[0-9]+")
set(dev_holds
    "usr/include/RtCore/RtCore\\.h" "usr/include/RtNetwork/RtNetwork\\.h"
    "usr/include/HalvosCore/HalvosCore\\.h" "usr/include/HalvosCore/HVVersion\\.h"
    "${lib}/libRtCore\\.so" "${lib}/libRtNetwork\\.so" "${lib}/libHalvosCore\\.so"
    "${lib}/libRtCore\\.a" "${lib}/libRtNetwork\\.a" "${lib}/libHalvosCore\\.a"
    "${lib}/pkgconfig/RtCore\\.pc" "${lib}/pkgconfig/RtNetwork\\.pc" "${lib}/pkgconfig/HalvosCore\\.pc"
    "${lib}/cmake/HalvosCore/HalvosCoreConfig\\.cmake" "${lib}/cmake/HalvosCore/HalvosCoreTargets\\.cmake")
set(dev_depends "${runtime} \\(= ${v}-1\\)" "libexpat1-dev" "libicu-dev" "libcurl4-openssl-dev" "libmicrohttpd-dev")
set(tools_holds
    "usr/bin/hvcall" "usr/bin/hvserve"
    "usr/share/man/man1/hvcall\\.1\\.gz" "usr/share/man/man1/hvserve\\.1\\.gz")
set(tools_depends "${runtime} \\(= ${v}-1\\)")

set(runtime_name ${runtime})
set(dev_name libhalvoscore-dev)
set(tools_name halvoscore-tools)

file(GLOB debs ${out}/*.deb)
list(LENGTH debs count)
if(NOT count EQUAL 3)
  message(FATAL_ERROR "cpack made ${count} packages, not 3: ${debs}")
endif()

set(packaged) # every path of every package
foreach(kind runtime dev tools)
  set(name ${${kind}_name})
  file(GLOB deb ${out}/${name}_${VERSION}-1_*.deb)
  if(NOT deb)
    list(APPEND failures "no ${name} package")
    continue()
  endif()
  execute_process(COMMAND dpkg-deb -c ${deb} OUTPUT_VARIABLE listing)
  string(REGEX MATCHALL "\\./[^\n ]+[^/\n ](\n| ->)" paths "${listing}")
  list(TRANSFORM paths REPLACE "^\\./([^\n ]+)[\n ].*" "\\1")
  message("${name}: ${paths}")
  foreach(want ${${kind}_holds})
    if(NOT paths MATCHES "(^|;)${want}(;|$)")
      list(APPEND failures "${name} does not hold ${want}")
    endif()
  endforeach()
  foreach(path ${paths})
    if(path IN_LIST packaged)
      list(APPEND failures "${path} is in two packages")
    endif()
  endforeach()
  list(APPEND packaged ${paths})

  execute_process(COMMAND dpkg-deb -f ${deb} Depends OUTPUT_VARIABLE depends)
  message("${name} depends on: ${depends}")
  foreach(want ${${kind}_depends})
    if(NOT depends MATCHES "(^|, )${want}( |,|$|\n)")
      list(APPEND failures "${name} does not depend on ${want}: ${depends}")
    endif()
  endforeach()
  run(dpkg-deb -x ${deb} ${root})
endforeach()

# The runtime package tells programs built on it what to depend on.
file(GLOB deb ${out}/${runtime}_*.deb)
execute_process(COMMAND dpkg-deb --info ${deb} shlibs OUTPUT_VARIABLE shlibs)
if(NOT shlibs MATCHES "libHalvosCore ${major} ${runtime} \\(>= ${v}")
  list(APPEND failures "${runtime} has no shlibs line for libHalvosCore: ${shlibs}")
endif()

# Every file of the plain install is in a package (man pages compressed).
run(${CMAKE_COMMAND} --install ${BINARY_DIR} --prefix ${WORK_DIR}/install)
file(GLOB_RECURSE installed LIST_DIRECTORIES false RELATIVE ${WORK_DIR}/install ${WORK_DIR}/install/*)
foreach(path ${installed})
  if(path MATCHES "^share/man/")
    set(path ${path}.gz)
  endif()
  if(NOT "usr/${path}" IN_LIST packaged)
    list(APPEND failures "${path} is installed but in no package")
  endif()
endforeach()

# The man pages are the project's own, compressed.
foreach(page hvcall hvserve)
  execute_process(COMMAND gzip -dc ${root}/usr/share/man/man1/${page}.1.gz OUTPUT_VARIABLE unpacked)
  file(READ ${MAN_DIR}/${page}.1 source)
  if(NOT unpacked STREQUAL source)
    list(APPEND failures "${page}.1.gz is not docs/man/${page}.1")
  endif()
endforeach()

if(failures)
  string(JOIN "\n" text ${failures})
  message(FATAL_ERROR "${text}")
endif()

# Programs build and run against the unpacked packages; the tools run from there.
build_consumers(${root}/usr ${LIBDIR} deb)
foreach(tool hvcall hvserve)
  run_clean(LD_LIBRARY_PATH=${root}/usr/${LIBDIR} ${root}/usr/bin/${tool} --help)
endforeach()

file(REMOVE_RECURSE ${WORK_DIR})
