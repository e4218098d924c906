# What every target of the project shares.

set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_C_STANDARD 11)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
set(CMAKE_CXX_VISIBILITY_PRESET hidden)
set(CMAKE_C_VISIBILITY_PRESET hidden)
set(CMAKE_VISIBILITY_INLINES_HIDDEN ON)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)
# Programs and libraries side by side, so that they find each other in the build tree as they do when installed.
set(CMAKE_RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/bin)
set(CMAKE_LIBRARY_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/lib)

option(TARVEX_WERROR "Treat warnings as errors" OFF)

function(tarvex_target target)
  target_compile_options(${target} PRIVATE -Wall -Wextra -Wshadow -Wconversion -fstack-protector-strong
                         $<$<BOOL:${TARVEX_WERROR}>:-Werror>)
  target_compile_definitions(${target} PRIVATE _FILE_OFFSET_BITS=64
                             $<$<CONFIG:Release,RelWithDebInfo>:_FORTIFY_SOURCE=2>)
  target_include_directories(${target} PRIVATE ${CMAKE_CURRENT_SOURCE_DIR})
  target_link_options(${target} PRIVATE -Wl,-z,relro -Wl,-z,now)
endfunction()

# A GoogleTest program whose cases are entered in CTest one by one.
#   tarvex_test(NAME SOURCES a.cpp ... LIBRARIES x ...)
function(tarvex_test name)
  cmake_parse_arguments(ARG "" "" "SOURCES;LIBRARIES;INCLUDES" ${ARGN})
  add_executable(${name} ${ARG_SOURCES})
  tarvex_target(${name})
  target_include_directories(${name} PRIVATE ${ARG_INCLUDES})
  target_link_libraries(${name} PRIVATE ${ARG_LIBRARIES} GTest::gtest GTest::gmock GTest::gtest_main)
  gtest_discover_tests(${name} DISCOVERY_TIMEOUT 60 PROPERTIES TIMEOUT 120)
endfunction()
