#pragma once

#include <gtest/gtest.h>

#include "Velum/Base/SystemError.h"

namespace velum::test {

/// The error of the system that the call ends with; a failure of the test when there is none.
template <class Call>
SystemError errorOf(Call call) {
  try {
    call();
  } catch (const SystemError& error) {
    return error;
  }
  ADD_FAILURE() << "no error";
  return {SystemError::lastCode, "no error"};
}

}  // namespace velum::test
