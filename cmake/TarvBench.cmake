# What the benchmarks share, beside cmake/TarvTargets.cmake.

# tarv_add_bench(NAME [SOURCES file...] [LINKS target...]): the program NAME, of NAME.cpp and these.
function(tarv_add_bench name)
  cmake_parse_arguments(PARSE_ARGV 1 ARG "" "" "SOURCES;LINKS")
  add_executable(${name} ${name}.cpp ${ARG_SOURCES})
  target_link_libraries(${name} PRIVATE tarv::options ${ARG_LINKS} benchmark::benchmark)
endfunction()

# tarv_bench_peer(NAME DEFINITION TARGET): the program also measures TARGET's library, if there.
function(tarv_bench_peer name definition target)
  if(TARGET ${target})
    target_compile_definitions(${name} PRIVATE ${definition})
    target_link_libraries(${name} PRIVATE ${target})
  else()
    message(STATUS "${name}: without ${target}, which is not installed")
  endif()
endfunction()
