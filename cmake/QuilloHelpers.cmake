# Shared compile settings for every quillo target.
function(quillo_target_settings target)
  target_compile_options(${target} PRIVATE -Wall -Wextra -Wpedantic -Werror)
  # GCC 12 reports -Wrestrict inside libstdc++'s string code at -O3 where no
  # overlap is possible (GCC bug 105329); keep it a warning, not an error.
  if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    target_compile_options(${target} PRIVATE -Wno-error=restrict)
  endif()
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
  gtest_discover_tests(${name} DISCOVERY_MODE PRE_TEST
                       PROPERTIES ENVIRONMENT "QUILLO_TEST_DATA=${CMAKE_CURRENT_SOURCE_DIR}/data")
endfunction()
