# Compiles the service against an installed runtime manager whose classes are larger than the bundled
# ones: nothing of the bundled one may be compiled against.
#   PACKAGE: cmake (without the members that a platform may lack) or pkgconfig (with them)
function(run)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE result OUTPUT_VARIABLE output ERROR_VARIABLE output)
  if(NOT result EQUAL 0)
    message(FATAL_ERROR "${ARGN} gave ${result}:\n${output}")
  endif()
  set(output "${output}" PARENT_SCOPE)
endfunction()

set(prefix "${BINARY}/prefix")
set(common -G "Unix Makefiles" "-DCMAKE_CXX_COMPILER=${COMPILER}"
  "-DCMAKE_CXX_COMPILER_LAUNCHER=${LAUNCHER}")
file(REMOVE_RECURSE "${BINARY}")
if(PACKAGE STREQUAL "cmake")
  set(optional OFF)
  set(ENV{PKG_CONFIG_LIBDIR} "${BINARY}/nothing")
else()
  set(optional ON)
  set(ENV{PKG_CONFIG_PATH} "${prefix}/lib/pkgconfig")
endif()

run("${CMAKE_COMMAND}" -S "${SOURCE}/stub" -B "${BINARY}/stub" ${common} "-DSTUB_PREFIX=${prefix}"
  -DSTUB_OPTIONAL_MEMBERS=${optional} -DAS_PACKAGE=${PACKAGE})
run("${CMAKE_COMMAND}" --build "${BINARY}/stub")
run("${CMAKE_COMMAND}" -S "${PROJECT}" -B "${BINARY}/tarv" ${common} -DTARV_RUNTIME_MANAGER=system
  -DTARV_BUILD_TESTS=OFF -DTARV_WERROR=ON "-DCMAKE_PREFIX_PATH=${prefix}")
# Only the service: the rest knows nothing of the runtime manager.
run(make -C "${BINARY}/tarv" -j2 tarv_service/fast)

# The names of the files that each object was compiled from.
file(GLOB dependencies "${BINARY}/tarv/src/CMakeFiles/tarv_service.dir/*.d")
set(found FALSE)
foreach(file ${dependencies})
  file(READ "${file}" text)
  if(text MATCHES "${PROJECT}/platform/[^ \n]*")
    message(FATAL_ERROR "${file}: compiled against the bundled ${CMAKE_MATCH_0}")
  endif()
  if(text MATCHES "${prefix}/include/RuntimeManager/Task.h")
    set(found TRUE)
  endif()
endforeach()
if(NOT found)
  message(FATAL_ERROR "nothing is compiled against the package in ${prefix}")
endif()

# What is optional is used where it is there: the symbols that the service asks for.
execute_process(COMMAND nm -C "${BINARY}/tarv/lib/libtarv_service.a" OUTPUT_VARIABLE symbols)
foreach(member TaskMessaging::sendData TaskMessaging::dataReceived TaskMessaging::disconnected
        Task::finished)
  set(there OFF)
  if(symbols MATCHES "U RuntimeManager::${member}")
    set(there ON)
  endif()
  if(NOT there STREQUAL optional)
    message(FATAL_ERROR "the service uses ${member}: ${there}; it is in the package: ${optional}")
  endif()
endforeach()
