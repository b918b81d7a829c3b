# Applications and their tasks. Both functions work with the installed library and with the project as
# a subdirectory.
#
#   tarv_add_task(sum SOURCES task.cpp)
#   tarv_add_application(adder SOURCES main.cpp TASKS sum)
#
# put what belongs together into one folder of the build, where each part finds the others:
#
#   adder/bin/adder          the program
#   adder/bin/tasks/sum      its tasks, found by their names
#   adder/lib/libtarv.so     what plug-ins load: a link to the library that the program is linked with

# tarv_add_task(NAME SOURCES file...): the background task NAME; an application's TASKS names it.
function(tarv_add_task name)
  cmake_parse_arguments(PARSE_ARGV 1 ARG "" "" "SOURCES")
  if(NOT ARG_SOURCES OR ARG_UNPARSED_ARGUMENTS)
    message(FATAL_ERROR "tarv_add_task(${name}): wants SOURCES file..., and nothing else; "
      "it got: ${ARGN}")
  endif()
  _tarv_add_program(${name} "$ORIGIN/../../lib" ${ARG_SOURCES})
endfunction()

# tarv_add_application(NAME SOURCES file... [TASKS task...]): the application NAME with these tasks.
function(tarv_add_application name)
  cmake_parse_arguments(PARSE_ARGV 1 ARG "" "" "SOURCES;TASKS")
  if(NOT ARG_SOURCES OR ARG_UNPARSED_ARGUMENTS)
    message(FATAL_ERROR "tarv_add_application(${name}): wants SOURCES file... and perhaps TASKS "
      "task..., and nothing else; it got: ${ARGN}")
  endif()
  set(folder "${CMAKE_CURRENT_BINARY_DIR}/${name}")
  _tarv_add_program(${name} "$ORIGIN/../lib" ${ARG_SOURCES})
  set_target_properties(${name} PROPERTIES RUNTIME_OUTPUT_DIRECTORY "${folder}/bin/$<1:>")
  foreach(library tarv::tarv RuntimeManager::RuntimeManager veltra::host)
    if(TARGET ${library})
      add_custom_command(TARGET ${name} POST_BUILD VERBATIM
        COMMAND "${CMAKE_COMMAND}" -E make_directory "${folder}/lib"
        COMMAND "${CMAKE_COMMAND}" -E create_symlink "$<TARGET_FILE:${library}>"
          "${folder}/lib/$<TARGET_FILE_NAME:${library}>")
    endif()
  endforeach()
  foreach(task ${ARG_TASKS})
    _tarv_give_task(${name} ${task} "${folder}/bin/tasks")
  endforeach()
endfunction()

function(_tarv_add_program name rpath)
  add_executable(${name} ${ARGN})
  target_link_libraries(${name} PRIVATE tarv::tarv)
  if(TARGET tarv::host)
    target_link_libraries(${name} PRIVATE tarv::host)
  endif()
  set_target_properties(${name} PROPERTIES BUILD_RPATH "${rpath}" INSTALL_RPATH "${rpath}")
endfunction()

function(_tarv_give_task application task folder)
  if(NOT TARGET ${task})
    message(FATAL_ERROR "tarv_add_application(${application}): there is no task '${task}'; call "
      "tarv_add_task(${task} SOURCES ...) before")
  endif()
  get_target_property(taken ${task} TARV_APPLICATION)
  if(taken)
    message(FATAL_ERROR "tarv_add_application(${application}): the task '${task}' belongs to "
      "'${taken}'; give each application a task of its own")
  endif()
  set_target_properties(${task} PROPERTIES TARV_APPLICATION ${application}
    RUNTIME_OUTPUT_DIRECTORY "${folder}/$<1:>")
  add_dependencies(${application} ${task})
endfunction()
