# Installs the built project into a scratch prefix, then configures, builds and
# runs the consumer project against it.
file(REMOVE_RECURSE ${WORK})
execute_process(COMMAND ${CMAKE_COMMAND} --install ${BUILD} --prefix ${WORK}/prefix
  RESULT_VARIABLE rc OUTPUT_QUIET)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "install failed")
endif()
execute_process(COMMAND ${CMAKE_COMMAND} -S ${SOURCE} -B ${WORK}/build
  -DCMAKE_PREFIX_PATH=${WORK}/prefix -DCMAKE_CXX_FLAGS=${FLAGS} -DCMAKE_EXE_LINKER_FLAGS=${FLAGS}
  RESULT_VARIABLE rc)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "the consumer does not configure against the installed package")
endif()
execute_process(COMMAND ${CMAKE_COMMAND} --build ${WORK}/build RESULT_VARIABLE rc)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "the consumer does not build against the installed package")
endif()
execute_process(COMMAND ${WORK}/build/consumer ${WORK}/wiki.db RESULT_VARIABLE rc)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "the consumer's call failed")
endif()
file(REMOVE_RECURSE ${WORK})
