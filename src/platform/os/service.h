// The program as a service: it is asked to end by signals and reports its state to the service
// manager.
#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <string_view>

namespace os {

// While one exists, the first SIGINT or SIGTERM asks for an end and the second one ends the program
// at once. One at a time; the application's thread.
class StopSignals {
 public:
  // reloads: SIGHUP asks for a reload instead of ending the program.
  explicit StopSignals(bool reloads = false);
  ~StopSignals();
  StopSignals(const StopSignals&) = delete;
  StopSignals& operator=(const StopSignals&) = delete;

  // Somebody has asked for the end.
  bool Requested() const;
  // Waits for that, no longer than the limit.
  bool WaitFor(std::chrono::milliseconds limit) const;
  // Somebody has asked for a reload since the last call.
  bool TakeReload();

 private:
  const bool reloads_;
};

// The manager that started the program as a service names a local socket and, when it is to watch
// the program, a watchdog period. Without a manager everything is a no-op. One thread.
class ServiceNotifier {
 public:
  // From the environment: NOTIFY_SOCKET, WATCHDOG_USEC, WATCHDOG_PID.
  static ServiceNotifier FromEnvironment();
  // address: a path, or "@name" of an abstract socket; empty: no manager.
  ServiceNotifier(const std::string& address, std::optional<std::chrono::microseconds> watchdog);
  ~ServiceNotifier();
  ServiceNotifier(ServiceNotifier&& other) noexcept;
  ServiceNotifier(const ServiceNotifier&) = delete;
  ServiceNotifier& operator=(const ServiceNotifier&) = delete;

  bool active() const { return descriptor_ >= 0; }
  // The manager kills a program that has been silent for that long.
  std::optional<std::chrono::microseconds> watchdog() const { return watchdog_; }

  // Each false when it did not reach the manager.
  bool Ready() const { return Send("READY=1"); }
  bool Stopping() const { return Send("STOPPING=1"); }
  bool FeedWatchdog() const { return Send("WATCHDOG=1"); }
  // One line of text for the operator.
  bool Status(const std::string& text) const { return Send("STATUS=" + text); }

 private:
  bool Send(std::string_view message) const;

  std::string address_;
  std::optional<std::chrono::microseconds> watchdog_;
  int descriptor_ = -1;
};

}  // namespace os
