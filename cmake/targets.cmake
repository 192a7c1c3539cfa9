include(GoogleTest)

# vosk_block(NAME SOURCES ... [PUBLIC ...] [PRIVATE ...]): a library with its headers in src/include.
# PUBLIC holds what its headers need, PRIVATE what only its sources need. Without sources it is header-only.
function(vosk_block name)
  cmake_parse_arguments(arg "" "" "SOURCES;PUBLIC;PRIVATE" ${ARGN})
  if(arg_SOURCES)
    add_library(${name} STATIC ${arg_SOURCES})
    target_include_directories(${name} PUBLIC src/include)
    target_link_libraries(${name} PUBLIC ${arg_PUBLIC} PRIVATE vosk_flags ${arg_PRIVATE})
  else()
    add_library(${name} INTERFACE)
    target_include_directories(${name} INTERFACE src/include)
    target_link_libraries(${name} INTERFACE ${arg_PUBLIC})
  endif()
endfunction()

# vosk_program(NAME SOURCES ... LINK ...)
function(vosk_program name)
  cmake_parse_arguments(arg "" "" "SOURCES;LINK" ${ARGN})
  add_executable(${name} ${arg_SOURCES})
  target_link_libraries(${name} PRIVATE vosk_flags ${arg_LINK})
endfunction()

# vosk_test(NAME SOURCES ... LINK ... [SERIAL]): a GoogleTest program, each of its tests known to ctest. The headers of
# testing/ are at hand.
# SERIAL keeps its tests from running beside others (real sockets at rate, threads against deadlines).
function(vosk_test name)
  cmake_parse_arguments(arg "SERIAL" "" "SOURCES;LINK" ${ARGN})
  vosk_program(${name} SOURCES ${arg_SOURCES} LINK ${arg_LINK} vosk_testing GTest::gmock GTest::gtest_main)
  set(properties TIMEOUT 120)
  if(arg_SERIAL)
    list(APPEND properties RUN_SERIAL ON)
  endif()
  gtest_discover_tests(${name} DISCOVERY_TIMEOUT 60 PROPERTIES ${properties})
endfunction()

# vosk_fuzz(NAME SOURCES ... LINK ...): a libFuzzer target, built under the fuzz preset only.
function(vosk_fuzz name)
  cmake_parse_arguments(arg "" "" "SOURCES;LINK" ${ARGN})
  if(VOSK_FUZZ)
    vosk_program(${name} SOURCES ${arg_SOURCES} LINK ${arg_LINK})
    target_link_options(${name} PRIVATE -fsanitize=fuzzer)
  endif()
endfunction()
