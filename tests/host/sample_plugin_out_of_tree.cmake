# Installs this build's host into a scratch prefix, builds
# examples/sample_plugin against it out of tree (find_package only) and
# loads the result with kxhost in a sandboxed root.
#   cmake -DBUILD_DIR=... -DSOURCE_DIR=... -DKXHOST=... -DCXX=... -DWORK=...
#         -P sample_plugin_out_of_tree.cmake
foreach(var BUILD_DIR SOURCE_DIR KXHOST CXX WORK)
  if(NOT DEFINED ${var})
    message(FATAL_ERROR "${var} not given")
  endif()
endforeach()

function(run what)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE result
                  OUTPUT_VARIABLE out ERROR_VARIABLE err)
  if(NOT result EQUAL 0)
    message(FATAL_ERROR "${what} failed (${result}):\n${out}\n${err}")
  endif()
  set(out "${out}" PARENT_SCOPE)
endfunction()

function(expect_equal what actual expected)
  if(NOT actual STREQUAL expected)
    message(FATAL_ERROR "${what}:\n got:      [${actual}]\n expected: [${expected}]")
  endif()
endfunction()

file(REMOVE_RECURSE ${WORK})
file(MAKE_DIRECTORY ${WORK})
set(prefix ${WORK}/prefix)

# Only what a plug-in author gets: the install prefix, not the source tree.
run("installing the host" ${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${prefix})
foreach(file include/host/plugin_api.h include/host/host_api.h
             lib/cmake/KorvexHost/KorvexHostConfig.cmake lib/libkxhost.so)
  if(NOT EXISTS ${prefix}/${file})
    message(FATAL_ERROR "the install prefix lacks ${file}")
  endif()
endforeach()
if(EXISTS ${prefix}/include/host/lib OR EXISTS ${prefix}/include/host/runtime.h)
  message(FATAL_ERROR "the host's internals were installed with the contract")
endif()

# A copy of the sample, so that nothing can reach back into the source tree
# by a relative path.
file(COPY ${SOURCE_DIR}/examples/sample_plugin DESTINATION ${WORK})
run("configuring the sample plug-in" ${CMAKE_COMMAND}
    -S ${WORK}/sample_plugin -B ${WORK}/build -G Ninja
    -DCMAKE_CXX_COMPILER=${CXX} -DCMAKE_PREFIX_PATH=${prefix}
    -DCMAKE_FIND_USE_PACKAGE_REGISTRY=OFF)
run("building the sample plug-in" ${CMAKE_COMMAND} --build ${WORK}/build)
set(plugin ${WORK}/build/libsample.so)

# The plug-in exports its entry points and nothing of the host.
run("listing the plug-in's symbols" nm -D --defined-only ${plugin})
if(NOT out MATCHES "_Z11plugin_execP17parsed_xml_data_t")
  message(FATAL_ERROR "plugin_exec is not exported:\n${out}")
endif()

file(WRITE ${WORK}/echo.xml
     "<request command=\"echo\"><text>hello from out of tree</text></request>\n")
run("kxhost with the sample plug-in" ${KXHOST} --root ${WORK}/root
    --plugin ${plugin} info exec ${WORK}/echo.xml)
expect_equal("kxhost's output" "${out}"
  "name: sample\ndescription: Sample plug-in built against the installed host\n<reply>\n  <text>hello from out of tree</text>\n</reply>\n")

file(REMOVE_RECURSE ${WORK})
message(STATUS "the sample plug-in built against ${prefix} runs under kxhost")
