# Small helpers so that every CMakeLists stays a short list of names.

# Warnings are on for every build. They stop the build only where
# KX_WARNINGS_AS_ERRORS is on (the developer and CI presets): a user's plain
# `cmake` build with another compiler version must not fail on a new warning.
# Sanitizers when asked for.
function(kx_compile_options target)
  target_compile_options(${target} PRIVATE -Wall -Wextra -Wshadow
                                           -Wnon-virtual-dtor -Wno-unused-parameter)
  if(KX_WARNINGS_AS_ERRORS)
    target_compile_options(${target} PRIVATE -Werror)
  endif()
  target_compile_definitions(${target} PRIVATE BOOST_BIND_GLOBAL_PLACEHOLDERS
                                               BOOST_LOG_DYN_LINK)
  if(KX_SANITIZE)
    target_compile_options(${target} PRIVATE -fsanitize=address,undefined
                                             -fno-omit-frame-pointer -fno-sanitize-recover=undefined)
    target_link_options(${target} PRIVATE -fsanitize=address,undefined)
    if(CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
      # clang links its sanitizer runtime statically into executables only,
      # which leaves shared libraries built with --no-undefined unlinkable.
      # The shared runtime (what gcc uses by default) serves every binary.
      execute_process(COMMAND ${CMAKE_CXX_COMPILER} -print-runtime-dir
                      OUTPUT_VARIABLE kx_sanitizer_runtime_dir
                      OUTPUT_STRIP_TRAILING_WHITESPACE)
      target_link_options(${target} PRIVATE -shared-libsan
                          -Wl,-rpath,${kx_sanitizer_runtime_dir})
    endif()
  endif()
  if(KX_BUILD_FUZZERS)
    # Coverage feedback for libFuzzer from the code under test (the plug-in,
    # the host); only the fuzz targets themselves link the fuzzer's main.
    # -O1: unoptimised Boost code under both sanitizers runs several times
    # slower, and executions per second are what a fuzzer lives on.
    target_compile_options(${target} PRIVATE -fsanitize=fuzzer-no-link -O1)
  endif()
endfunction()

# kx_test(NAME area SOURCES ... [LIBS ...]): one GoogleTest executable per
# area, registered with CTest under the area's name.
function(kx_test)
  cmake_parse_arguments(T "" "NAME" "SOURCES;LIBS" ${ARGN})
  add_executable(${T_NAME}_tests ${T_SOURCES})
  kx_compile_options(${T_NAME}_tests)
  target_link_libraries(${T_NAME}_tests PRIVATE kxtest_support ${T_LIBS}
                        GTest::gtest GTest::gmock)
  add_test(NAME ${T_NAME} COMMAND ${T_NAME}_tests)
  set_tests_properties(${T_NAME} PROPERTIES TIMEOUT 900
    ENVIRONMENT "KX_BUILD_DIR=${CMAKE_BINARY_DIR};KX_SOURCE_DIR=${CMAKE_SOURCE_DIR}")
endfunction()

# kx_bench(NAME unit SOURCES ... [LIBS ...]): a Google Benchmark executable.
function(kx_bench)
  cmake_parse_arguments(B "" "NAME" "SOURCES;LIBS" ${ARGN})
  add_executable(${B_NAME}_bench ${B_SOURCES})
  kx_compile_options(${B_NAME}_bench)
  target_link_libraries(${B_NAME}_bench PRIVATE ${B_LIBS})
endfunction()
