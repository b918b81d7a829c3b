# What every target of the project shares: one place for flags, one function for a library, one
# for a test program.

set(CMAKE_CXX_STANDARD 17)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_C_STANDARD 11)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
set(CMAKE_CXX_VISIBILITY_PRESET hidden)
set(CMAKE_C_VISIBILITY_PRESET hidden)
set(CMAKE_VISIBILITY_INLINES_HIDDEN ON)
set(CMAKE_RUNTIME_OUTPUT_DIRECTORY "${PROJECT_BINARY_DIR}/bin")
set(CMAKE_LIBRARY_OUTPUT_DIRECTORY "${PROJECT_BINARY_DIR}/lib")
set(CMAKE_ARCHIVE_OUTPUT_DIRECTORY "${PROJECT_BINARY_DIR}/lib")

find_package(Threads REQUIRED)
add_library(tarv_options INTERFACE)
add_library(tarv::options ALIAS tarv_options)
target_compile_options(tarv_options INTERFACE
  -Wall -Wextra -Wpedantic -Wconversion -Wshadow
  $<$<BOOL:${TARV_WERROR}>:-Werror>
  # Log lines and assertions name a file by its path from the repository's root.
  "-ffile-prefix-map=${PROJECT_SOURCE_DIR}/=")
# Qt's lower-case keywords (signals, slots, emit) would eat names of ours.
target_compile_definitions(tarv_options INTERFACE QT_NO_KEYWORDS)
target_link_libraries(tarv_options INTERFACE Threads::Threads)
if(TARV_SANITIZE)
  target_compile_options(tarv_options INTERFACE
    -fsanitize=${TARV_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer)
  target_link_options(tarv_options INTERFACE -fsanitize=${TARV_SANITIZE})
  # Sanitizers keep what is given back for a while: tests that measure memory must know.
  target_compile_definitions(tarv_options INTERFACE TARV_SANITIZED)
  if(TARV_SANITIZE MATCHES undefined)
    # Its look at an object opens a pipe, and takes the want of descriptors that some tests make for
    # a wild pointer. The address sanitizer sees objects that are gone.
    target_compile_options(tarv_options INTERFACE -fno-sanitize=vptr)
  endif()
endif()
if(TARV_COVERAGE)
  # Threads that count without locking lose counts, and even leave negative ones, at which gcovr stops.
  target_compile_options(tarv_options INTERFACE --coverage -fprofile-update=atomic)
  target_link_options(tarv_options INTERFACE --coverage)
endif()
if(TARV_CHECK_LOCKS)
  # Only programs: what a library takes from the C library, it takes from the program then.
  set(lock_order_functions pthread_mutex_lock pthread_mutex_trylock pthread_mutex_unlock
    pthread_rwlock_rdlock pthread_rwlock_wrlock pthread_rwlock_unlock free
    tarv_expect_no_lock tarv_locks_held tarv_lock_orders)
  list(TRANSFORM lock_order_functions PREPEND "-Wl,--export-dynamic-symbol=")
  # Not where time is measured, which it takes.
  define_property(TARGET PROPERTY TARV_MEASURES INITIALIZE_FROM_VARIABLE TARV_MEASURES)
  set(is_program $<STREQUAL:$<TARGET_PROPERTY:TYPE>,EXECUTABLE>)
  set(is_program $<AND:${is_program},$<NOT:$<BOOL:$<TARGET_PROPERTY:TARV_MEASURES>>>>)
  target_link_options(tarv_options INTERFACE
    "$<${is_program}:-Wl,-u,tarv_locks_held;${lock_order_functions}>")
  target_link_libraries(tarv_options INTERFACE $<${is_program}:tarv_lock_order>)
endif()

# Headers that modules share but do not install, included by their path from the root:
# <quarn/internal/...>.
add_library(tarv_internals INTERFACE)
add_library(tarv::internals ALIAS tarv_internals)
target_include_directories(tarv_internals INTERFACE "${PROJECT_SOURCE_DIR}")

# tarv_add_library(NAME SOURCES file... HEADERS include/file.h... [LINKS target...])
# A static library tarv::NAME whose public headers lie under include/ and compile alone.
function(tarv_add_library name)
  cmake_parse_arguments(PARSE_ARGV 1 ARG "" "" "SOURCES;HEADERS;LINKS")
  add_library(${name} STATIC ${ARG_SOURCES})
  add_library(tarv::${name} ALIAS ${name})
  target_sources(${name} PUBLIC FILE_SET HEADERS
    BASE_DIRS "${CMAKE_CURRENT_SOURCE_DIR}/include" FILES ${ARG_HEADERS})
  set_target_properties(${name} PROPERTIES VERIFY_INTERFACE_HEADER_SETS ON)
  target_link_libraries(${name} PUBLIC ${ARG_LINKS}
    PRIVATE $<BUILD_INTERFACE:tarv::options> $<BUILD_INTERFACE:tarv::internals>)
endfunction()

# Tests are read by the compiler far longer than they run: they share one precompiled header (for
# which all must be compiled alike) and are not optimised, while what they test is.
function(tarv_compile_fast target)
  target_compile_options(${target} PRIVATE -fPIC -O0 -g1)
endfunction()

# tarv_add_test(NAME SOURCES file... [LINKS target...] [TIMEOUT seconds] [ONE_BY_ONE])
# A GoogleTest program; each of its tests is a test of ctest, labelled with the program's name. Its
# time limit is for one test.
function(tarv_add_test name)
  if(NOT TARV_BUILD_TESTS)
    return()
  endif()
  cmake_parse_arguments(PARSE_ARGV 1 ARG "ONE_BY_ONE" "TIMEOUT" "SOURCES;LINKS")
  if(NOT ARG_TIMEOUT)
    set(ARG_TIMEOUT 600) # for a busy machine; what waits in a test has a limit of its own
  endif()
  if(CMAKE_CROSSCOMPILING OR TARV_SANITIZE OR TARV_COVERAGE)
    math(EXPR ARG_TIMEOUT "10 * ${ARG_TIMEOUT}") # emulated, or slow in its own way
  endif()
  set(lock)
  if(ARG_ONE_BY_ONE)
    set(lock RESOURCE_LOCK ${name})
  endif()
  include(GoogleTest)
  add_executable(${name} ${ARG_SOURCES})
  target_link_libraries(${name} PRIVATE ${ARG_LINKS} tarv::options tarv::internals GTest::gmock_main)
  tarv_compile_fast(${name})
  target_precompile_headers(${name} REUSE_FROM tarv_test_headers)
  list(FILTER ARG_SOURCES INCLUDE REGEX "\\.c$")
  set_source_files_properties(${ARG_SOURCES} PROPERTIES SKIP_PRECOMPILE_HEADERS ON)
  gtest_discover_tests(${name} DISCOVERY_MODE PRE_TEST
    PROPERTIES TIMEOUT ${ARG_TIMEOUT} LABELS ${name} ${lock})
endfunction()
