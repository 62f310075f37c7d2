// WaitUntil: waits for a condition that another thread or process causes.
#pragma once

#include <chrono>
#include <thread>

#include <gtest/gtest.h>

// Polls the condition until it holds, for a minute at most; then the test fails and says what was
// awaited.
template <typename Condition>
bool WaitUntil(const char* what, Condition isSo,
               std::chrono::seconds limit = std::chrono::seconds(60)) {
  const auto end = std::chrono::steady_clock::now() + limit;
  bool so = isSo();
  for (; !so && std::chrono::steady_clock::now() < end; so = isSo()) {
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  EXPECT_TRUE(so) << "never so: " << what;
  return so;
}
