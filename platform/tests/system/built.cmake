# Builds libtarv.so for an installed runtime manager whose classes are larger than the bundled ones,
# and runs a program with it: nothing of the bundled one may be compiled against.
#   PACKAGE: cmake (without the members that a platform may lack) or pkgconfig (with them)
#   LIBRARY: the build folder of libtarv.so, which both share: most of it knows no runtime manager
function(run)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE result OUTPUT_VARIABLE output ERROR_VARIABLE output)
  if(NOT result EQUAL 0)
    message(FATAL_ERROR "${ARGN} gave ${result}:\n${output}")
  endif()
  set(output "${output}" PARENT_SCOPE)
endfunction()

set(prefix "${BINARY}/prefix")
# The flags of the tests' own build: a compiler cache knows most of the library then.
set(common -G Ninja "-DCMAKE_CXX_COMPILER=${COMPILER}" "-DCMAKE_CXX_COMPILER_LAUNCHER=${LAUNCHER}"
  "-DCMAKE_BUILD_TYPE=${BUILD_TYPE}" "-DCMAKE_CXX_FLAGS_DEBUG=${DEBUG_FLAGS}")
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
run("${CMAKE_COMMAND}" --fresh -S "${PROJECT}" -B "${LIBRARY}" ${common} -DTARV_RUNTIME_MANAGER=system
  -DTARV_BUILD_TESTS=OFF -DTARV_WERROR=ON "-DCMAKE_PREFIX_PATH=${prefix}")
run("${CMAKE_COMMAND}" --build "${LIBRARY}" --target tarv)

# The names of the files that the objects were compiled from.
run("${CMAKE_COMMAND}" --build "${LIBRARY}" -- -t deps)
if(output MATCHES "${PROJECT}/platform/[^ \n]*")
  message(FATAL_ERROR "something is compiled against the bundled ${CMAKE_MATCH_0}")
endif()
if(NOT output MATCHES "/prefix/include/RuntimeManager/Task.h")
  message(FATAL_ERROR "nothing is compiled against the package in ${prefix}")
endif()

# What is optional is used where it is there: the symbols that the service asks for.
run(nm -C "${LIBRARY}/lib/libtarv.so")
foreach(member TaskMessaging::sendData TaskMessaging::dataReceived TaskMessaging::disconnected
        Task::finished)
  set(there OFF)
  if(output MATCHES "U RuntimeManager::${member}")
    set(there ON)
  endif()
  if(NOT there STREQUAL optional)
    message(FATAL_ERROR "the service uses ${member}: ${there}; it is in the package: ${optional}")
  endif()
endforeach()

# Whoever made an object too small finds it out at the latest when that object ends.
run("${CMAKE_COMMAND}" -S "${SOURCE}/user" -B "${BINARY}/user" ${common} "-DTARV=${PROJECT}"
  "-DTARV_BUILD=${LIBRARY}")
run("${CMAKE_COMMAND}" --build "${BINARY}/user")
run("${BINARY}/user/user")
set(expected "opened: yes\nthe starter says hello\nstarted with 0\nthe task says hello\nreleased\n")
if(NOT output STREQUAL expected)
  message(FATAL_ERROR "the program says:\n${output}instead of:\n${expected}")
endif()
