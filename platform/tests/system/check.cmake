# Configures with TARV_RUNTIME_MANAGER=system where there is none, with another word, and where
# there is a CMake package.
function(configure expected_result expected_text)
  file(REMOVE_RECURSE "${BINARY}/build")
  execute_process(COMMAND "${CMAKE_COMMAND}" -S "${SOURCE}" -B "${BINARY}/build" ${ARGN}
    RESULT_VARIABLE result OUTPUT_VARIABLE output ERROR_VARIABLE output)
  string(REGEX REPLACE "[ \n]+" " " output "${output}")
  if(expected_result STREQUAL "works" AND result EQUAL 0 AND output MATCHES "${expected_text}")
    return()
  endif()
  if(expected_result STREQUAL "fails" AND NOT result EQUAL 0 AND output MATCHES "${expected_text}")
    return()
  endif()
  message(FATAL_ERROR "configuring with ${ARGN} gave ${result}, not '${expected_text}':\n${output}")
endfunction()

set(ENV{PKG_CONFIG_PATH} "")
set(ENV{PKG_CONFIG_LIBDIR} "${BINARY}/nothing")
configure(fails "neither a CMake package RuntimeManager .* nor a pkg-config module RuntimeManager"
  -DTARV_RUNTIME_MANAGER=system)
configure(fails "must be 'host' .* or 'system'" -DTARV_RUNTIME_MANAGER=elsewhere)

file(WRITE "${BINARY}/prefix/lib/cmake/RuntimeManager/RuntimeManagerConfig.cmake"
  "add_library(RuntimeManager::RuntimeManager INTERFACE IMPORTED)\n")
configure(works "found a runtime manager" -DTARV_RUNTIME_MANAGER=system
  "-DCMAKE_PREFIX_PATH=${BINARY}/prefix")

file(WRITE "${BINARY}/pc/RuntimeManager.pc"
  "Name: RuntimeManager\nDescription: a stand-in\nVersion: 1\nLibs: -lm\n")
set(ENV{PKG_CONFIG_LIBDIR} "${BINARY}/pc")
configure(works "found a runtime manager" -DTARV_RUNTIME_MANAGER=system)
