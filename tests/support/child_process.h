// ChildProcess: another program, whose standard output is read line by line.
#pragma once

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <optional>
#include <string>
#include <system_error>
#include <vector>

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/ioctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

class ChildProcess {
 public:
  // The program's path and its arguments. Its error stream is discarded.
  explicit ChildProcess(std::vector<std::string> command) {
    int ends[2];
    if (pipe(ends) != 0) {
      throw std::system_error(errno, std::generic_category(), "no pipe");
    }
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, ends[1], STDOUT_FILENO);
    posix_spawn_file_actions_addclose(&actions, ends[0]);
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
    std::vector<char*> arguments;
    for (std::string& argument : command) {
      arguments.push_back(argument.data());
    }
    arguments.push_back(nullptr);
    const int error = posix_spawn(&id_, arguments[0], &actions, nullptr, arguments.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    close(ends[1]);
    output_ = fdopen(ends[0], "r");
    if (error != 0 || output_ == nullptr) {
      throw std::system_error(error != 0 ? error : errno, std::generic_category(), command[0]);
    }
  }
  // Kills it if it still runs.
  ~ChildProcess() {
    Signal(SIGKILL);
    Wait();
    std::fclose(output_);
  }
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  // The next line of its output, without its end; none when it has ended.
  std::optional<std::string> ReadLine() {
    std::string line;
    for (int c = std::fgetc(output_); c != EOF; c = std::fgetc(output_)) {
      if (c == '\n') {
        return line;
      }
      line.push_back(static_cast<char>(c));
    }
    return line.empty() ? std::nullopt : std::optional(line);
  }
  void Signal(int signal) {
    if (!status_) {
      kill(id_, signal);
    }
  }
  // Whether its output pipe has room for some lines; the pipe gets its smallest size first.
  bool OutputHasRoom() {
    int waiting = 0;
    const int size = fcntl(fileno(output_), F_SETPIPE_SZ, 4096);
    return ioctl(fileno(output_), FIONREAD, &waiting) == 0 && waiting < size - 2048;
  }
  // As Wait; none when it runs for longer.
  std::optional<int> WaitFor(std::chrono::milliseconds limit) {
    const int process = static_cast<int>(syscall(SYS_pidfd_open, id_, 0));
    pollfd ended{process, POLLIN, 0};
    const bool hasEnded = status_ || poll(&ended, 1, static_cast<int>(limit.count())) > 0;
    close(process);
    return hasEnded ? std::optional(Wait()) : std::nullopt;
  }
  // Its exit code, or minus the signal that ended it.
  int Wait() {
    int status = 0;
    while (!status_ && (waitpid(id_, &status, 0) == id_ || errno != EINTR)) {
      status_ = WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
    }
    return *status_;
  }

 private:
  pid_t id_ = -1;
  std::FILE* output_ = nullptr;
  std::optional<int> status_;
};
