find_package(GTest REQUIRED)
include(GoogleTest)

# quendral_add_gtest(<target> [SERIAL] LABELS <labels...> SOURCES <files...> [LIBS <libs...>] [WRAPPER <cmd...>] [ENV <k=v...>])
# One executable; every GoogleTest case becomes a CTest test carrying the labels.
function(quendral_add_gtest target)
  # SERIAL: the tests run alone (simulated boards paced to the wall clock
  # fall behind when another test competes for the two cores).
  cmake_parse_arguments(ARG "SERIAL" "TIMEOUT" "LABELS;SOURCES;LIBS;WRAPPER;ENV" ${ARGN})
  add_executable(${target} ${ARG_SOURCES})
  target_link_libraries(${target} PRIVATE quendral_warnings GTest::gtest GTest::gtest_main GTest::gmock ${ARG_LIBS})
  if(NOT ARG_TIMEOUT)
    set(ARG_TIMEOUT 120)
  endif()
  # The environment travels as an `env` prefix of the test command: gtest's
  # test discovery would split a list-valued ENVIRONMENT property apart.
  set(sanitizer_env "")
  if(QUENDRAL_SANITIZE STREQUAL "thread")
    set(sanitizer_env "TSAN_OPTIONS=suppressions=${CMAKE_SOURCE_DIR}/tests/sanitizers/tsan.supp")
  elseif(QUENDRAL_SANITIZE STREQUAL "address")
    # Third-party leaks we cannot free (simavr's IRQ tables) are listed there.
    set(sanitizer_env "LSAN_OPTIONS=suppressions=${CMAKE_SOURCE_DIR}/tests/sanitizers/lsan.supp")
    # A preloading wrapper (umockdev-wrapper) puts its library ahead of ASan's
    # runtime: around the test itself (WRAPPER) or around a program the test
    # starts (the device lab re-runs itself under it).
    list(APPEND sanitizer_env "ASAN_OPTIONS=verify_asan_link_order=0")
  endif()
  set(prefix /usr/bin/env "QUENDRAL_TEST_SOURCE_DIR=${CMAKE_SOURCE_DIR}" "QUENDRAL_TEST_BUILD_DIR=${CMAKE_BINARY_DIR}"
    ${sanitizer_env} ${ARG_ENV} ${ARG_WRAPPER})
  set_target_properties(${target} PROPERTIES CROSSCOMPILING_EMULATOR "${prefix}")
  gtest_discover_tests(${target}
    DISCOVERY_MODE PRE_TEST
    DISCOVERY_TIMEOUT 30
    TEST_LIST ${target}_TESTS
    PROPERTIES TIMEOUT ${ARG_TIMEOUT} RUN_SERIAL ${ARG_SERIAL})
  # Labels do not go through PROPERTIES: the discovery script writes each
  # property value as a bare word list, so "LABELS integration e2e" kept only
  # the first label (and turned the rest into bogus property names). CTest
  # reads this file after the discovered tests exist; quoted, the list stays one value.
  if(ARG_LABELS)
    set(labels_file "${CMAKE_CURRENT_BINARY_DIR}/${target}_labels.cmake")
    file(WRITE "${labels_file}"
      "if(DEFINED ${target}_TESTS)\n"
      "  set_tests_properties(\${${target}_TESTS} PROPERTIES LABELS \"${ARG_LABELS}\")\n"
      "endif()\n")
    set_property(DIRECTORY APPEND PROPERTY TEST_INCLUDE_FILES "${labels_file}")
  endif()
endfunction()
