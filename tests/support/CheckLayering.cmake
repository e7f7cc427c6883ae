# Proves that the build enforces the layering: a util source that includes
# a settings header fails to build, and fails because that header is not
# found, while a util source that includes a util header builds (so the
# failure is not one of the probe or the build itself).
set(upward_header settings/LoggerSettingManager.h)
if(NOT EXISTS ${SOURCE_DIR}/src/${upward_header})
  message(FATAL_ERROR "the probe's header ${upward_header} is gone from src/; pick another one")
endif()

function(build_probe target result_var output_var)
  execute_process(COMMAND ${CMAKE_COMMAND} --build ${BUILD_DIR} --target ${target}
                  RESULT_VARIABLE result OUTPUT_VARIABLE output ERROR_VARIABLE output)
  set(${result_var} ${result} PARENT_SCOPE)
  set(${output_var} "${output}" PARENT_SCOPE)
endfunction()

build_probe(layering_probe_own_layer result output)
if(NOT result EQUAL 0)
  message(FATAL_ERROR "a util source including util/FileUtil.h does not build:\n${output}")
endif()

build_probe(layering_probe_upward_include result output)
if(result EQUAL 0)
  message(FATAL_ERROR "a util source including ${upward_header} builds; the layering is not enforced")
endif()
string(FIND "${output}" "${upward_header}" at)
if(at EQUAL -1)
  message(FATAL_ERROR "the upward include failed, but not on ${upward_header}:\n${output}")
endif()
message(STATUS "the util layer cannot include ${upward_header}")
