# Has tarvctl write its completion and its man pages: cmake -DTARVCTL=... -DFOLDER=... -P generate.cmake
file(MAKE_DIRECTORY "${FOLDER}/man")
execute_process(COMMAND "${TARVCTL}" completion OUTPUT_FILE "${FOLDER}/tarvctl.bash"
  COMMAND_ERROR_IS_FATAL ANY)
execute_process(COMMAND "${TARVCTL}" man OUTPUT_VARIABLE overview COMMAND_ERROR_IS_FATAL ANY)
file(WRITE "${FOLDER}/man/tarvctl.1" "${overview}")
string(REGEX MATCHALL "tarvctl.-[a-z]+ " pages "${overview}")
if(NOT pages)
  message(FATAL_ERROR "generate.cmake: the page of tarvctl names no page of a verb")
endif()
foreach(page ${pages})
  string(REGEX REPLACE "tarvctl.-([a-z]+) " "\\1" verb "${page}")
  execute_process(COMMAND "${TARVCTL}" man ${verb} OUTPUT_FILE "${FOLDER}/man/tarvctl-${verb}.1"
    COMMAND_ERROR_IS_FATAL ANY)
endforeach()
file(GLOB pages "${FOLDER}/man/*.1")
foreach(page ${pages})
  execute_process(COMMAND gzip -9nf "${page}" COMMAND_ERROR_IS_FATAL ANY)
endforeach()
