# Checks each tool's man page (MAN_DIR/TOOL.1): groff renders it with every warning turned on
# and says nothing, and the page names exactly the options that "TOOL --help" names, so that an
# option added to a tool without its page (or dropped from the tool, not the page) is caught.
# Inputs (-D): MAN_DIR, TOOLS_DIR (where the built tools are), TOOLS (their names,
# separated by commas).
cmake_minimum_required(VERSION 3.22)
find_program(GROFF groff REQUIRED)

# options_in(VAR TEXT): the sorted, distinct long options ("--name") TEXT mentions.
function(options_in var text)
  string(REGEX MATCHALL "--[a-z][a-z0-9.-]*[a-z0-9]" found "${text}")
  list(REMOVE_DUPLICATES found)
  list(SORT found)
  set(${var} ${found} PARENT_SCOPE)
endfunction()

string(REPLACE "," ";" TOOLS "${TOOLS}")
set(failures)
foreach(tool ${TOOLS})
  set(page ${MAN_DIR}/${tool}.1)
  execute_process(COMMAND ${GROFF} -man -Tutf8 -ww -z ${page} RESULT_VARIABLE rc ERROR_VARIABLE warnings)
  if(NOT rc EQUAL 0 OR NOT warnings STREQUAL "")
    list(APPEND failures "${tool}.1 does not render cleanly (${rc}):\n${warnings}")
  endif()

  execute_process(COMMAND ${TOOLS_DIR}/${tool} --help RESULT_VARIABLE rc OUTPUT_VARIABLE help)
  if(NOT rc EQUAL 0)
    list(APPEND failures "${tool} --help failed (${rc})")
  endif()
  file(READ ${page} roff)
  string(REPLACE "\\-" "-" roff "${roff}") # roff writes a hyphen-minus as \-
  options_in(in_help "${help}")
  options_in(in_page "${roff}")
  set(undocumented ${in_help})
  set(unknown ${in_page})
  if(in_page AND in_help)
    list(REMOVE_ITEM undocumented ${in_page})
    list(REMOVE_ITEM unknown ${in_help})
  endif()
  list(JOIN undocumented ", " undocumented)
  list(JOIN unknown ", " unknown)
  if(undocumented)
    list(APPEND failures "${tool}.1 does not describe ${undocumented}, which ${tool} --help names")
  endif()
  if(unknown)
    list(APPEND failures "${tool}.1 names ${unknown}, which ${tool} --help does not")
  endif()
  message("${tool}: ${in_help}")
endforeach()

if(failures)
  string(JOIN "\n" text ${failures})
  message(FATAL_ERROR "${text}")
endif()
