# Shared compile settings for every quillo target.
function(quillo_target_settings target)
  target_compile_options(${target} PRIVATE -Wall -Wextra -Wpedantic -Werror)
  if(QUILLO_SANITIZE)
    target_compile_options(${target} PRIVATE -fsanitize=address,undefined -fno-omit-frame-pointer
                                             -fno-sanitize-recover=undefined)
    target_link_options(${target} PRIVATE -fsanitize=address,undefined)
  endif()
endfunction()

# quillo_test(NAME dir): one GoogleTest binary from every *_test.cc under tests/<dir>.
function(quillo_test name dir)
  file(GLOB_RECURSE sources CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/${dir}/*_test.cc)
  if(NOT sources)
    return()
  endif()
  add_executable(${name} ${sources})
  target_link_libraries(${name} PRIVATE quillo::quillo quillo_test_support GTest::gtest_main
                                        GTest::gmock OpenSSL::Crypto)
  quillo_target_settings(${name})
  # One ctest entry per test suite (a suite's parameterised instances included),
  # not per test: a process per test costs more than most tests themselves,
  # above all under the sanitizers. GoogleTest prints each test's result.
  set(suites "")
  foreach(source ${sources})
    file(STRINGS ${source} lines REGEX "^(TEST|TEST_F|TEST_P)\\([A-Za-z0-9_]+,")
    foreach(line ${lines})
      string(REGEX REPLACE "^TEST(_F|_P)?\\(([A-Za-z0-9_]+),.*" "\\2" suite "${line}")
      list(APPEND suites ${suite})
    endforeach()
  endforeach()
  list(REMOVE_DUPLICATES suites)
  foreach(suite ${suites})
    add_test(NAME ${suite} COMMAND ${name} --gtest_brief=1 "--gtest_filter=${suite}.*:*/${suite}.*")
    set_tests_properties(${suite} PROPERTIES
                         ENVIRONMENT "QUILLO_TEST_DATA=${CMAKE_CURRENT_SOURCE_DIR}/data"
                         LABELS ${name})
  endforeach()
endfunction()
