# Runs kxhost with --root and fails when the machine's /opt/korvex changed:
# appeared, disappeared, or had an entry added or removed. Creating it counts
# as touching it.
#   cmake -DKXHOST=... -DPLUGIN=... -DWORK=... -P real_root_untouched.cmake
foreach(var KXHOST PLUGIN WORK)
  if(NOT DEFINED ${var})
    message(FATAL_ERROR "${var} not given")
  endif()
endforeach()

function(snapshot out)
  set(state "missing")
  if(EXISTS /opt/korvex)
    file(GLOB_RECURSE entries LIST_DIRECTORIES true /opt/korvex/*)
    list(SORT entries)
    set(state "present:${entries}")
  endif()
  file(GLOB opt_entries LIST_DIRECTORIES true /opt/*)
  list(SORT opt_entries)
  set(${out} "${state}|opt:${opt_entries}" PARENT_SCOPE)
endfunction()

snapshot(before)
file(REMOVE_RECURSE ${WORK})
file(MAKE_DIRECTORY ${WORK})
set(request ${WORK}/request.xml)
file(WRITE ${request} "<request command=\"reset_policies\"/>\n")
execute_process(
  COMMAND ${KXHOST} --root ${WORK}/root --plugin ${PLUGIN}
          info state policies exec ${request} setting KXServer dc1
  RESULT_VARIABLE result OUTPUT_VARIABLE out ERROR_VARIABLE err)
snapshot(after)
file(REMOVE_RECURSE ${WORK})

if(NOT result EQUAL 0)
  message(FATAL_ERROR "kxhost failed (${result}): ${err}")
endif()
if(NOT before STREQUAL after)
  message(FATAL_ERROR "the machine's /opt/korvex changed:\n before: ${before}\n after: ${after}")
endif()
message(STATUS "/opt/korvex untouched (${before})")
