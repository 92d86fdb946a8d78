// Test helpers for run-time errors.
//
// EXPECT_RUNTIME_ERROR(expr, number) checks that evaluating `expr` throws
// quillo::RuntimeError carrying error `number`; ASSERT_RUNTIME_ERROR stops the
// test on failure. Any other exception, or none, fails with a message saying
// what happened instead. Header-only; safe to use from any test file.
//
//   EXPECT_RUNTIME_ERROR(quillo::DateSerial(10000, 1, 1), quillo::err::kOverflow);
#ifndef QUILLO_TESTS_SUPPORT_ERROR_MATCHERS_H_
#define QUILLO_TESTS_SUPPORT_ERROR_MATCHERS_H_

#include <gtest/gtest.h>

#include <exception>
#include <string>

#include "platform/error.h"

namespace quillo::testing_support {

// Runs `body` and reports whether it threw RuntimeError `number`.
template <typename Body>
::testing::AssertionResult ThrowsRuntimeError(Body&& body, long number, const char* text) {
  try {
    body();
  } catch (const RuntimeError& error) {
    if (error.number == number) return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << text << " threw RuntimeError " << error.number << " ("
                                         << error.description << "), expected error " << number;
  } catch (const std::exception& error) {
    return ::testing::AssertionFailure()
           << text << " threw " << error.what() << " instead of RuntimeError " << number;
  } catch (...) {
    return ::testing::AssertionFailure()
           << text << " threw an unknown exception instead of RuntimeError " << number;
  }
  return ::testing::AssertionFailure()
         << text << " threw nothing; expected RuntimeError " << number;
}

}  // namespace quillo::testing_support

// Expects `expr` to throw quillo::RuntimeError with error number `number`.
#define EXPECT_RUNTIME_ERROR(expr, number)                                                    \
  EXPECT_TRUE(::quillo::testing_support::ThrowsRuntimeError([&] { static_cast<void>(expr); }, \
                                                            (number), #expr))

// Like EXPECT_RUNTIME_ERROR, but ends the test when the expectation fails.
#define ASSERT_RUNTIME_ERROR(expr, number)                                                    \
  ASSERT_TRUE(::quillo::testing_support::ThrowsRuntimeError([&] { static_cast<void>(expr); }, \
                                                            (number), #expr))

#endif  // QUILLO_TESTS_SUPPORT_ERROR_MATCHERS_H_
