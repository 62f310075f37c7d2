// What becomes of the outputs of a run, as messages.
#pragma once

#include <chrono>
#include <map>
#include <mutex>
#include <optional>
#include <string>

#include "host/cli/message_log.h"
#include "host/output/output.h"

namespace host::cli {

// A failure is reported when its reason changes, not on every attempt. The outputs' threads call;
// one lock.
class OutputMessages final : public OutputObserver {
 public:
  explicit OutputMessages(MessageLog& messages) : messages_(messages) {}

  void OutputFailed(const std::string& output, const std::string& reason,
                    std::optional<std::chrono::milliseconds> retryIn) override {
    const std::string text = reason + (retryIn.has_value() ? "; it is tried again" : "");
    {
      const std::lock_guard guard(lock_);
      if (std::exchange(said_[output], text) == text) {
        return;
      }
    }
    messages_.Say(qorp::log::kError, "output " + output + ": " + text);
  }
  void OutputOpened(const std::string& output, const std::string& target,
                    Opening opening) override {
    {
      const std::lock_guard guard(lock_);
      said_.erase(output);
    }
    const std::string written = target == output ? "" : "; written is " + target;
    switch (opening) {
      case Opening::kFirst:
        return messages_.Say(qorp::log::kInfo, "output " + output + ": open" + written);
      case Opening::kBeside:
        return messages_.Say(
            qorp::log::kError,
            "output " + output + ": a file of that name exists and is kept" + written);
      case Opening::kAgain:
        return messages_.Say(qorp::log::kError, "output " + output + ": open again" + written);
      case Opening::kNext:
        return messages_.Say(qorp::log::kInfo, "output " + output + ": continues" + written);
    }
  }
  void OutputSaid(const std::string& output, const std::string& what) override {
    messages_.Say(qorp::log::kWarning, "output " + output + ": " + what);
  }

 private:
  MessageLog& messages_;
  std::mutex lock_;
  std::map<std::string, std::string> said_;  // guarded by lock_
};

}  // namespace host::cli
