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

# Function names and lines are what a stack trace shows; the types and variables of -g cost a third of the build's time.
foreach(language C CXX)
  string(REGEX REPLACE "-g( |$)" "-g1\\1" CMAKE_${language}_FLAGS_RELWITHDEBINFO "${CMAKE_${language}_FLAGS_RELWITHDEBINFO}")
endforeach()

option(TARVEX_WERROR "Treat warnings as errors" OFF)

option(TARVEX_UNITY "Compile sources several at a time: half the time from scratch, more for a single change" ON)

function(tarvex_target target)
  target_compile_options(${target} PRIVATE -Wall -Wextra -Wshadow -Wconversion -fstack-protector-strong
                         $<$<BOOL:${TARVEX_WERROR}>:-Werror>)
  target_compile_definitions(${target} PRIVATE _FILE_OFFSET_BITS=64
                             $<$<CONFIG:Release,RelWithDebInfo>:_FORTIFY_SOURCE=2>)
  target_include_directories(${target} PRIVATE ${CMAKE_CURRENT_SOURCE_DIR})
  target_link_options(${target} PRIVATE -Wl,-z,relro -Wl,-z,now)
endfunction()

# Sources of a library or program, compiled several at a time: what their headers and templates cost is paid once.
function(tarvex_unite target)
  set_target_properties(${target} PROPERTIES UNITY_BUILD ${TARVEX_UNITY})
  # A source that is included counts as a header, whose types should have no unnamed namespaces.
  target_compile_options(${target} PRIVATE $<$<AND:$<CXX_COMPILER_ID:GNU>,$<COMPILE_LANGUAGE:CXX>>:-Wno-subobject-linkage>)
endfunction()

# Headers that most sources of a target include and that take long to read, read once.
#   tarvex_precompile(TARGET <header> ...)
function(tarvex_precompile target)
  target_precompile_headers(${target} PRIVATE ${ARGN})
  # The first lets ccache see the precompiled header in what it hashes. The others: code of the standard library that was
  # inlined from there counts as ours, and g++ 12 warns of copies and searches in it that it merely cannot rule out.
  target_compile_options(
    ${target} PRIVATE $<$<CXX_COMPILER_ID:GNU>:-fpch-preprocess -Wno-array-bounds -Wno-restrict -Wno-stringop-overflow
                      -Wno-stringop-overread>)
endfunction()

# What runs once when a program starts and is made of templates: the optimiser's time would be wasted on it.
#   tarvex_optimise_little(SOURCE ...)
function(tarvex_optimise_little)
  set_source_files_properties(${ARGN} PROPERTIES COMPILE_OPTIONS $<$<CONFIG:Release,RelWithDebInfo>:-Og>)
endfunction()

# A GoogleTest program whose cases are entered in CTest one by one.
#   tarvex_test(NAME SOURCES a.cpp ... LIBRARIES x ...)
function(tarvex_test name)
  cmake_parse_arguments(ARG "" "" "SOURCES;LIBRARIES;INCLUDES" ${ARGN})
  add_executable(${name} ${ARG_SOURCES})
  tarvex_target(${name})
  # What is tested is optimised; to optimise the cases themselves took a third of the build.
  target_compile_options(${name} PRIVATE $<$<CONFIG:Release,RelWithDebInfo>:-O0 -U_FORTIFY_SOURCE>)
  target_include_directories(${name} PRIVATE ${ARG_INCLUDES})
  list(LENGTH ARG_SOURCES count)
  if(count GREATER 3)
    # A C source among the tests has no use for the headers.
    tarvex_precompile(${name} "$<$<COMPILE_LANGUAGE:CXX>:<gtest/gtest.h$<ANGLE-R>>" "$<$<COMPILE_LANGUAGE:CXX>:<string$<ANGLE-R>>"
                      "$<$<COMPILE_LANGUAGE:CXX>:<vector$<ANGLE-R>>")
  endif()
  target_link_libraries(${name} PRIVATE ${ARG_LIBRARIES} GTest::gtest GTest::gmock GTest::gtest_main)
  gtest_discover_tests(${name} DISCOVERY_TIMEOUT 60 PROPERTIES TIMEOUT 120)
endfunction()
