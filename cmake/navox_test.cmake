# navox_add_test(<name> [SOURCES] <source>... [LIBS <library>...] [LABELS <label>...] [TIMEOUT <seconds>]
#                [ENVIRONMENT <name=value>...] [OWN_MAIN])
#
# One area of tests: a GoogleTest executable whose cases CTest lists as <name>.<suite>.<case>. TIMEOUT is
# for each case (default 60 s). Cases with the label `live` also run under ThreadSanitizer; the target live_tests
# builds them. OWN_MAIN: one of the sources has a main of its own.
find_package(GTest REQUIRED)
include(GoogleTest)
add_custom_target(live_tests)

function(navox_add_test name)
  cmake_parse_arguments(PARSE_ARGV 1 arg "OWN_MAIN" "TIMEOUT" "SOURCES;LIBS;LABELS;ENVIRONMENT")
  if(NOT arg_TIMEOUT)
    set(arg_TIMEOUT 60)
  endif()
  add_executable(${name} ${arg_SOURCES} ${arg_UNPARSED_ARGUMENTS})
  target_link_libraries(${name} PRIVATE ${arg_LIBS} navox_options GTest::gtest)
  if(NOT NAVOX_SANITIZE) # whose run time knows the names of routines, by which some findings are excused
    set_target_properties(${name} PROPERTIES ENABLE_EXPORTS TRUE)
  endif()
  if(NOT arg_OWN_MAIN)
    target_link_libraries(${name} PRIVATE GTest::gtest_main)
  endif()
  if("live" IN_LIST arg_LABELS)
    add_dependencies(live_tests ${name})
  endif()
  set(properties TIMEOUT ${arg_TIMEOUT})
  if(arg_LABELS)
    string(REPLACE ";" "\\;" labels "${arg_LABELS}")
    list(APPEND properties LABELS "${labels}")
  endif()
  if(arg_ENVIRONMENT)
    string(REPLACE ";" "\\;" environment "${arg_ENVIRONMENT}")
    list(APPEND properties ENVIRONMENT "${environment}")
  endif()
  gtest_discover_tests(${name} TEST_PREFIX ${name}. DISCOVERY_MODE PRE_TEST DISCOVERY_TIMEOUT 30 NO_PRETTY_VALUES
                       PROPERTIES ${properties})
endfunction()
