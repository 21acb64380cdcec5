# Installs the build into a folder, moves the folder, and checks that the moved
# tree works: sarvode loads its extension, and another project finds kest.

file(REMOVE_RECURSE ${WORK_DIR})
execute_process(COMMAND ${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${WORK_DIR}/installed
  RESULT_VARIABLE rc OUTPUT_QUIET)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "cmake --install failed")
endif()
file(RENAME ${WORK_DIR}/installed ${WORK_DIR}/moved)
foreach(path bin/sarvode lib/libsshared.so lib/sarvode/extensions/sarvode_python.so
        lib/sarvode/extensions/site-packages include/kest/kest.hpp lib/cmake/kest/kestConfig.cmake)
  if(NOT EXISTS ${WORK_DIR}/moved/${path})
    message(FATAL_ERROR "the installed tree lacks ${path}")
  endif()
endforeach()

execute_process(COMMAND ${WORK_DIR}/moved/bin/sarvode --version
  RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
if(NOT rc EQUAL 0 OR NOT out MATCHES "^sarvode ")
  message(FATAL_ERROR "the moved sarvode failed (${rc}): ${out}${err}")
endif()

execute_process(COMMAND ${CMAKE_COMMAND} -S ${SOURCE_DIR} -B ${WORK_DIR}/consumer
    -DCMAKE_PREFIX_PATH=${WORK_DIR}/moved -DCMAKE_BUILD_TYPE=Release
  RESULT_VARIABLE rc OUTPUT_QUIET ERROR_VARIABLE err)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "find_package(kest) failed: ${err}")
endif()
execute_process(COMMAND ${CMAKE_COMMAND} --build ${WORK_DIR}/consumer RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "the consumer did not build: ${out}${err}")
endif()
execute_process(COMMAND ${WORK_DIR}/consumer/consumer RESULT_VARIABLE rc OUTPUT_VARIABLE out)
if(NOT rc EQUAL 0 OR NOT out STREQUAL "[1, 'two'] kest\n")
  message(FATAL_ERROR "the consumer printed '${out}' (${rc})")
endif()
# The embedding example, as an application built against the installed package.
execute_process(COMMAND ${CMAKE_COMMAND} -S ${EXAMPLE_DIR} -B ${WORK_DIR}/shop
    -DCMAKE_PREFIX_PATH=${WORK_DIR}/moved -DCMAKE_BUILD_TYPE=Release
  RESULT_VARIABLE rc OUTPUT_QUIET ERROR_VARIABLE err)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "find_package(kest) for examples/embedding failed: ${err}")
endif()
execute_process(COMMAND ${CMAKE_COMMAND} --build ${WORK_DIR}/shop RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "examples/embedding did not build against the installed tree: ${out}${err}")
endif()
execute_process(COMMAND ${WORK_DIR}/shop/shop RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
if(NOT rc EQUAL 0 OR NOT out MATCHES "all steps passed")
  message(FATAL_ERROR "examples/embedding failed (${rc}): ${out}${err}")
endif()
file(REMOVE_RECURSE ${WORK_DIR})
message(STATUS "installed tree works after moving; examples/embedding builds and runs against it")
