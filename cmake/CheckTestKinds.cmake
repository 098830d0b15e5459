# Every test says what kind it is with exactly one of the labels below, so
# that `ctest -L <kind>` and `ctest -LE <kind>` together always cover the
# whole suite once. Lists the tests with no kind or with two, and fails then.
#
#   cmake -DBUILD_DIR=<build tree> -P cmake/CheckTestKinds.cmake
#
# Needs the test binaries built: GoogleTest's tests are discovered from them.
# scripts/test.sh runs it before the suite.
set(kinds unit integration gui e2e fuzz)

if(NOT BUILD_DIR)
  message(FATAL_ERROR "usage: cmake -DBUILD_DIR=<build tree> -P ${CMAKE_CURRENT_LIST_FILE}")
endif()

# The names of the tests that `ctest -N` lists with these label filters.
function(list_tests out_var)
  execute_process(COMMAND ${CMAKE_CTEST_COMMAND} -N ${ARGN}
    WORKING_DIRECTORY ${BUILD_DIR}
    OUTPUT_VARIABLE listing
    ERROR_QUIET
    RESULT_VARIABLE result)
  if(NOT result EQUAL 0)
    message(FATAL_ERROR "ctest could not list the tests of ${BUILD_DIR}")
  endif()
  string(REGEX MATCHALL "Test +#[0-9]+: [^\n]*" lines "${listing}")
  list(TRANSFORM lines REPLACE "^Test +#[0-9]+: " "")
  set(${out_var} ${lines} PARENT_SCOPE)
endfunction()

list_tests(all_tests)
list(LENGTH all_tests test_count)
if(test_count EQUAL 0)
  message(FATAL_ERROR "no tests in ${BUILD_DIR}")
endif()

list(JOIN kinds "|" kind_pattern)
list_tests(offenders -LE "^(${kind_pattern})$")
list(TRANSFORM offenders APPEND "  (no kind)")
# Repeated -L filters must all match: the tests of two kinds at once.
set(remaining ${kinds})
foreach(kind IN LISTS kinds)
  list(REMOVE_ITEM remaining ${kind})
  foreach(other IN LISTS remaining)
    list_tests(both -L "^${kind}$" -L "^${other}$")
    list(TRANSFORM both APPEND "  (${kind} and ${other})")
    list(APPEND offenders ${both})
  endforeach()
endforeach()

list(JOIN kinds ", " kinds_shown)
if(offenders)
  list(LENGTH offenders offender_count)
  list(TRANSFORM offenders PREPEND "  ")
  list(JOIN offenders "\n" offenders_shown)
  message(FATAL_ERROR "${offender_count} of ${test_count} tests do not carry exactly one kind (${kinds_shown}):\n"
    "${offenders_shown}")
endif()
message(STATUS "All ${test_count} tests carry exactly one kind (${kinds_shown}).")
