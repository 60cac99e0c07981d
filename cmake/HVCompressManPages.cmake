# Run by cpack after it has staged the install and before it packs (CPACK_PRE_BUILD_SCRIPTS):
# compresses every staged man page as Debian ships them (gzip -9n: no name or time stamp, so
# that the same page always packs to the same bytes).
find_program(HV_GZIP gzip REQUIRED)
file(GLOB_RECURSE hv_staged_files LIST_DIRECTORIES false ${CPACK_TEMPORARY_INSTALL_DIRECTORY}/*)
list(FILTER hv_staged_files INCLUDE REGEX "/share/man/man[1-9]/[^/]+\\.[1-9]$")
foreach(page ${hv_staged_files})
  execute_process(COMMAND ${HV_GZIP} -9nf ${page} RESULT_VARIABLE rc)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "gzip ${page} failed (${rc})")
  endif()
endforeach()
