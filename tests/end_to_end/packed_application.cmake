# An application as it is packed: its libraries, plug-in and tasks in folders of their own, found
# from one another and from no folder that the loader searches.
set(packed_application "${CMAKE_CURRENT_BINARY_DIR}/packed")
set(packed_library "${packed_application}/lib/libtarv.so")
add_custom_command(OUTPUT "${packed_library}" DEPENDS tarv
  COMMAND "${CMAKE_COMMAND}" -E copy $<TARGET_FILE:tarv> "${packed_library}")

add_library(e2e_probe_plugin MODULE programs/probe_plugin.cpp)
set_target_properties(e2e_probe_plugin PROPERTIES OUTPUT_NAME probe_plugin
  LIBRARY_OUTPUT_DIRECTORY "${packed_application}/lib"
  BUILD_WITH_INSTALL_RPATH ON INSTALL_RPATH "$ORIGIN")
add_executable(e2e_packed_worker tasks/worker.cpp)
set_target_properties(e2e_packed_worker PROPERTIES OUTPUT_NAME worker
  RUNTIME_OUTPUT_DIRECTORY "${packed_application}/tasks"
  BUILD_WITH_INSTALL_RPATH ON INSTALL_RPATH "$ORIGIN/../lib;${CMAKE_LIBRARY_OUTPUT_DIRECTORY}")
foreach(part e2e_probe_plugin e2e_packed_worker)
  target_include_directories(${part} PRIVATE "${PROJECT_SOURCE_DIR}/tests")
  target_link_libraries(${part} PRIVATE tarv::tarv Qt5::Core tarv::options)
endforeach()
target_link_libraries(e2e_packed_worker PRIVATE veltra::host)

# The application itself knows the embedder and no more.
add_executable(e2e_probe programs/probe.cpp)
target_link_libraries(e2e_probe PRIVATE veltra::host Qt5::Core ${CMAKE_DL_LIBS} tarv::options)
add_custom_target(e2e_packed_application DEPENDS "${packed_library}" e2e_probe_plugin
  e2e_packed_worker)
