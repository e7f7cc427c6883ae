# Proves that the thread-safety build enforces the lock annotations: the
# probe that reads a guarded member without its mutex fails to compile
# under clang -Wthread-safety -Werror, and fails on that read, while the
# same probe with the mutex held compiles (so the failure is not one of the
# probe, the headers or the compiler).
#   -DCLANGXX=<clang++> -DSOURCE_DIR=<source tree> -DLAYER_INCLUDE=<build>/layer-include
set(probe ${SOURCE_DIR}/tests/lock-probes/GuardedCounter.cpp)

function(compile_probe result_var output_var)
  execute_process(COMMAND ${CLANGXX} -std=c++17 -fsyntax-only -Wthread-safety -Werror
                          -I${LAYER_INCLUDE}/util ${ARGN} ${probe}
                  RESULT_VARIABLE result OUTPUT_VARIABLE output ERROR_VARIABLE output)
  set(${result_var} ${result} PARENT_SCOPE)
  set(${output_var} "${output}" PARENT_SCOPE)
endfunction()

compile_probe(result output)
if(NOT result EQUAL 0)
  message(FATAL_ERROR "the probe that holds its mutex does not compile:\n${output}")
endif()

compile_probe(result output -DPVOCD_PROBE_UNGUARDED)
if(result EQUAL 0)
  message(FATAL_ERROR "a guarded member read without its mutex compiles; the lock rules are not checked")
endif()
string(FIND "${output}" "reading variable 'count_' requires holding mutex 'mutex_'" at)
if(at EQUAL -1)
  message(FATAL_ERROR "the unguarded probe failed, but not on its unguarded read:\n${output}")
endif()
message(STATUS "a guarded member cannot be read without its mutex")
