# cmake -DBUILD_DIR=... -DCONSUMER_DIR=... -DWORK_DIR=... [-DSANITIZE=ON] -P package_test.cmake
file(REMOVE_RECURSE ${WORK_DIR})
set(prefix ${WORK_DIR}/prefix)

function(run)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE result OUTPUT_VARIABLE out ERROR_VARIABLE err)
  if(NOT result EQUAL 0)
    message(FATAL_ERROR "failed (${result}): ${ARGN}\n${out}\n${err}")
  endif()
  set(last_output "${out}" PARENT_SCOPE)
endfunction()

run(${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${prefix})

foreach(installed
    bin/kxtransfer bin/kxserver
    lib/libKXTransfer.so lib/libKXUtil.so lib/libQtKXLogger.so lib/libServerApi.so
    include/KXTransfer/IKXTransfer.h include/KXTransfer/IKXTransferCallbacks.h
    include/KXTransfer/KXTransferDefine.h include/KXTransfer/kxtransfer_export.h
    include/ServerApi/ServerApiConfig.h include/ServerApi/serverapi_export.h
    lib/cmake/KXTransfer/KXTransferConfig.cmake lib/cmake/KXTransfer/KXTransferTargets.cmake)
  if(NOT EXISTS ${prefix}/${installed})
    message(FATAL_ERROR "not installed: ${installed}")
  endif()
endforeach()
# Only the public API is shipped: no engine internals beside it.
file(GLOB shipped_headers RELATIVE ${prefix}/include/KXTransfer ${prefix}/include/KXTransfer/*)
list(LENGTH shipped_headers header_count)
if(NOT header_count EQUAL 4)
  message(FATAL_ERROR "expected the 4 public headers, found: ${shipped_headers}")
endif()

# Libraries built with the sanitizers need a client built with them too.
set(consumer_flags)
if(SANITIZE)
  set(consumer_flags -DCMAKE_CXX_FLAGS=-fsanitize=address,undefined
    -DCMAKE_EXE_LINKER_FLAGS=-fsanitize=address,undefined)
endif()
run(${CMAKE_COMMAND} -S ${CONSUMER_DIR} -B ${WORK_DIR}/consumer -DCMAKE_PREFIX_PATH=${prefix} ${consumer_flags})
run(${CMAKE_COMMAND} --build ${WORK_DIR}/consumer)
# The consumer's own engine data must not land in the home folder.
run(${CMAKE_COMMAND} -E env XDG_DATA_HOME=${WORK_DIR}/data ${WORK_DIR}/consumer/kxconsumer)
if(NOT last_output MATCHES "TargetExists 20004, 0 live, found 0, server http://127.0.0.1:9")
  message(FATAL_ERROR "unexpected consumer output: ${last_output}")
endif()
# The installed tool finds its libraries through its relative run path.
run(${prefix}/bin/kxtransfer --help)
if(NOT last_output MATCHES "transfer.db")
  message(FATAL_ERROR "unexpected kxtransfer --help output: ${last_output}")
endif()
file(REMOVE_RECURSE ${WORK_DIR})
