# Installs the build into PREFIX and checks that every file a device needs
# is there.
file(REMOVE_RECURSE ${PREFIX})
execute_process(COMMAND ${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${PREFIX}
                RESULT_VARIABLE result OUTPUT_QUIET)
if(NOT result EQUAL 0)
  message(FATAL_ERROR "cmake --install failed: ${result}")
endif()
foreach(path sbin/pvocd bin/pvoctl lib/systemd/system/pvocd.service
        share/pvocd/examples/SettingsXML/LoggerSetting.xml
        share/pvocd/examples/SettingsXML/SystemSetting.xml
        share/pvocd/examples/DeviceXML/pv_inverter.xml)
  if(NOT EXISTS ${PREFIX}/${path})
    message(FATAL_ERROR "missing from the install tree: ${path}")
  endif()
endforeach()
file(READ ${PREFIX}/lib/systemd/system/pvocd.service unit)
if(NOT unit MATCHES "ExecStart=/[^\n]*/sbin/pvocd\n" OR NOT unit MATCHES "Restart=on-failure"
   OR NOT unit MATCHES "\nType=notify\n" OR NOT unit MATCHES "\nWatchdogSec=[1-9]"
   OR NOT unit MATCHES "\nExecReload=-?/[^\n ]*/bin/pvoctl [^\n]*settings-changed\n")
  message(FATAL_ERROR "unexpected systemd unit:\n${unit}")
endif()
file(REMOVE_RECURSE ${PREFIX})
