// A call that may never return, as into a dead mount, and a limit for it.
#pragma once

#include <chrono>
#include <cstdint>
#include <exception>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "platform/os/thread.h"

namespace os {

// Makes the call on a thread of its own and gives its result; none when the call takes longer than
// the limit. Its thread is then detached: the call owns everything that it touches. What it throws
// is thrown here.
template <typename T>
std::optional<T> CallWithin(std::chrono::milliseconds limit, std::function<T()> call,
                            const std::string& name) {
  struct Outcome {
    std::optional<T> value;
    std::exception_ptr failure;
  };
  const auto outcome = std::make_shared<Outcome>();
  Thread thread(
      [outcome, call = std::move(call)] {
        try {
          outcome->value.emplace(call());
        } catch (...) {
          outcome->failure = std::current_exception();
        }
      },
      name);
  if (!thread.Wait(static_cast<std::uint32_t>(limit.count()))) {
    return std::nullopt;
  }
  if (outcome->failure) {
    std::rethrow_exception(outcome->failure);
  }
  return std::move(outcome->value);
}

}  // namespace os
