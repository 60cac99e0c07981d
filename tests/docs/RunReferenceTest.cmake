# Builds the API reference the way ./hv docs does, with three checks:
#  1. every public header is documented as a file (doxygen checks the declarations of documented
#     files only) and doxygen reports no warning (an undocumented public declaration is one);
#  2. every C symbol the shared libraries export appears in the reference, so a declaration doxygen
#     failed to parse (a new attribute macro, say) cannot vanish from it silently;
#  3. the configuration still turns an undocumented declaration into a failure, so that checks 1
#     and 2 cannot pass because a setting was switched off.
# Inputs: DOXYGEN, NM, SOURCE_DIR, WORK_DIR, VERSION, VERSION_HEADER, LIBRARIES (comma-separated).
cmake_policy(SET CMP0057 NEW) # if(... IN_LIST ...)
file(REMOVE_RECURSE ${WORK_DIR})
file(MAKE_DIRECTORY ${WORK_DIR})
set(ENV{HV_VERSION} ${VERSION})
set(ENV{HV_VERSION_HEADER} ${VERSION_HEADER})

# Runs doxygen from the source tree with docs/Doxyfile and the extra settings in ARGN; sets
# <prefix>_rc and <prefix>_warnings.
function(run_doxygen prefix out)
  string(REPLACE ";" "\n" extra "${ARGN}")
  file(WRITE ${out}/Doxyfile "@INCLUDE = ${SOURCE_DIR}/docs/Doxyfile\nOUTPUT_DIRECTORY = ${out}\n"
                             "GENERATE_HTML = NO\nWARN_AS_ERROR = FAIL_ON_WARNINGS\n${extra}\n")
  execute_process(COMMAND ${DOXYGEN} ${out}/Doxyfile WORKING_DIRECTORY ${SOURCE_DIR}
                  RESULT_VARIABLE rc OUTPUT_QUIET ERROR_VARIABLE warnings)
  set(${prefix}_rc ${rc} PARENT_SCOPE)
  set(${prefix}_warnings "${warnings}" PARENT_SCOPE)
endfunction()

file(GLOB headers ${SOURCE_DIR}/RtCore/Headers/RtCore/*.h ${SOURCE_DIR}/RtNetwork/Headers/RtNetwork/*.h
                  ${SOURCE_DIR}/HalvosCore/Headers/HalvosCore/*.h ${SOURCE_DIR}/HalvosCore/Headers/HalvosCore/*.hpp)
set(undocumented_files "")
foreach(header IN LISTS headers)
  file(READ ${header} text)
  if(NOT text MATCHES "(/\\*\\*|///)[ \n*/]*[@\\]file")
    list(APPEND undocumented_files ${header})
  endif()
endforeach()
if(undocumented_files)
  string(REPLACE ";" "\n  " undocumented_files "${undocumented_files}")
  message(FATAL_ERROR "public headers without a /** @file */ comment (doxygen skips their "
                      "declarations):\n  ${undocumented_files}")
endif()

run_doxygen(ref ${WORK_DIR} "GENERATE_XML = YES")
if(NOT ref_rc EQUAL 0 OR NOT ref_warnings STREQUAL "")
  message(FATAL_ERROR "the API reference has warnings (document every public declaration):\n${ref_warnings}")
endif()

file(READ ${WORK_DIR}/xml/index.xml index)
string(REGEX MATCHALL "<name>[^<]+</name>" names "${index}")
string(REGEX REPLACE "</?name>" "" names "${names}")
string(REPLACE "," ";" libraries "${LIBRARIES}")
set(missing "")
set(count 0)
foreach(lib IN LISTS libraries)
  execute_process(COMMAND ${NM} -D --defined-only ${lib} OUTPUT_VARIABLE symbols RESULT_VARIABLE rc)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "${NM} could not read ${lib}")
  endif()
  # Code and data symbols of C names; C++ names (_Z...) and the sanitizers' own (with a dot) are
  # left to doxygen's warnings.
  string(REGEX MATCHALL "[0-9a-f]+ [TDBR] [A-Za-z_][A-Za-z0-9_]*\n" entries "${symbols}")
  foreach(entry IN LISTS entries)
    string(REGEX REPLACE "^[0-9a-f]+ [TDBR] ([A-Za-z0-9_]+)\n$" "\\1" symbol "${entry}")
    if(symbol MATCHES "^(_Z|_init$|_fini$|_edata$|_end$|__bss_start$)")
      continue()
    endif()
    math(EXPR count "${count} + 1")
    if(NOT symbol IN_LIST names)
      list(APPEND missing ${symbol})
    endif()
  endforeach()
endforeach()
if(count LESS 100)
  message(FATAL_ERROR "only ${count} exported C symbols found in ${LIBRARIES}: is ${NM} reading them?")
endif()
if(missing)
  string(REPLACE ";" "\n  " missing "${missing}")
  message(FATAL_ERROR "exported but absent from the API reference (declared in no public header, "
                      "or declared in a way doxygen does not parse):\n  ${missing}")
endif()

file(WRITE ${WORK_DIR}/probe/probe.h "/** @file\n * @brief A header with one undocumented function. */\nvoid hvProbeUndocumented(void);\n")
run_doxygen(probe ${WORK_DIR}/probe "INPUT = ${WORK_DIR}/probe/probe.h" "USE_MDFILE_AS_MAINPAGE =")
if(probe_rc EQUAL 0 OR NOT probe_warnings MATCHES "hvProbeUndocumented")
  message(FATAL_ERROR "docs/Doxyfile no longer fails on an undocumented declaration:\n${probe_warnings}")
endif()
message(STATUS "API reference: no warnings; all ${count} exported C symbols documented")
