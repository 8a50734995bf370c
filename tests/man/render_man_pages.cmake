cmake_minimum_required(VERSION 3.22)
# Renders each *.8 below SOURCE_DIR (build trees excluded) with man -l and
# fails on a non-zero exit, any warning on standard error, a page without a
# NAME section, or a program the package installs that has no page.
file(GLOB_RECURSE pages LIST_DIRECTORIES false ${SOURCE_DIR}/*.8)
set(found "")
foreach(page ${pages})
  file(RELATIVE_PATH relative ${SOURCE_DIR} ${page})
  if(relative MATCHES "^(build|\\.git)/" OR page MATCHES "^${BINARY_DIR}/")
    continue()
  endif()
  execute_process(
    COMMAND ${CMAKE_COMMAND} -E env LC_ALL=C.UTF-8 MANWIDTH=80 MAN_KEEP_FORMATTING=
            ${MAN} --warnings -l ${page}
    RESULT_VARIABLE status OUTPUT_VARIABLE text ERROR_VARIABLE warnings)
  if(NOT status EQUAL 0)
    message(SEND_ERROR "${relative}: man exited with ${status}: ${warnings}")
  elseif(NOT warnings STREQUAL "")
    message(SEND_ERROR "${relative}: warnings while rendering:\n${warnings}")
  elseif(NOT text MATCHES "NAME\n")
    message(SEND_ERROR "${relative}: no NAME section in the rendered page")
  else()
    get_filename_component(program ${page} NAME_WE)
    list(APPEND found ${program})
    message(STATUS "${relative}: rendered")
  endif()
endforeach()
foreach(program kxhost kxaecctl kxaide kxserv kxctl kxconsole)
  if(NOT program IN_LIST found)
    message(SEND_ERROR "no manual page ${program}.8 in the source tree")
  endif()
endforeach()
