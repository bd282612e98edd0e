# Checks the service's system files (see CMakeLists.txt): -DDAEMON, -DSOURCE,
# -DWORK.
find_program(ANALYZE systemd-analyze)
find_program(XMLLINT xmllint)
if(NOT ANALYZE OR NOT XMLLINT)
  message("SKIPPED: systemd-analyze or xmllint is missing")
  return()
endif()
file(MAKE_DIRECTORY ${WORK})
set(VORNDBD_PATH ${DAEMON})
configure_file(${SOURCE}/vorndbd.service.in ${WORK}/vorndbd.service @ONLY)
configure_file(${SOURCE}/vorndbd.socket ${WORK}/vorndbd.socket COPYONLY)
execute_process(COMMAND ${ANALYZE} verify ${WORK}/vorndbd.service ${WORK}/vorndbd.socket
                RESULT_VARIABLE result OUTPUT_VARIABLE out ERROR_VARIABLE out)
if(NOT result EQUAL 0 OR out MATCHES "[a-zA-Z]")
  message(FATAL_ERROR "systemd-analyze verify (${result}): ${out}")
endif()
execute_process(COMMAND ${XMLLINT} --noout ${SOURCE}/io.vorndb.Database1.conf RESULT_VARIABLE result
                ERROR_VARIABLE out)
if(NOT result EQUAL 0)
  message(FATAL_ERROR "io.vorndb.Database1.conf: ${out}")
endif()
