# Installs the build into a fresh prefix, builds the client project of this
# directory against that installation with find_package, and runs it with a
# registry of its own. Variables: BUILD_DIR (the build to install), WORK_DIR
# (scratch space, emptied first), SOURCE_DIR (this directory), GENERATOR,
# CXX_COMPILER, CXX_FLAGS, EXE_LINKER_FLAGS (the build's own, so that a
# sanitizer build links its client the same way).
foreach(var BUILD_DIR WORK_DIR SOURCE_DIR GENERATOR CXX_COMPILER)
  if(NOT DEFINED ${var})
    message(FATAL_ERROR "RunPackageTest.cmake needs -D${var}=...")
  endif()
endforeach()

function(run)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE result OUTPUT_VARIABLE output ERROR_VARIABLE output)
  if(NOT result EQUAL 0)
    message(FATAL_ERROR "failed (${result}): ${ARGN}\n${output}")
  endif()
endfunction()

file(REMOVE_RECURSE ${WORK_DIR})
set(prefix ${WORK_DIR}/prefix)
run(${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${prefix})
run(${CMAKE_COMMAND} -S ${SOURCE_DIR} -B ${WORK_DIR}/client -G ${GENERATOR}
    -DCMAKE_PREFIX_PATH=${prefix} -DCMAKE_CXX_COMPILER=${CXX_COMPILER}
    "-DCMAKE_CXX_FLAGS=${CXX_FLAGS}" "-DCMAKE_EXE_LINKER_FLAGS=${EXE_LINKER_FLAGS}")
run(${CMAKE_COMMAND} --build ${WORK_DIR}/client)
set(ENV{VORN_REGISTRY} ${WORK_DIR}/registry/registry.reg)
run(${WORK_DIR}/client/package_client)
file(READ ${WORK_DIR}/registry/registry.reg registry)
if(registry MATCHES "Zelmwerk")
  message(FATAL_ERROR "the registry still names the component after unregistering:\n${registry}")
endif()
