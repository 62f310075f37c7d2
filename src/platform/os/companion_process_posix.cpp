#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <system_error>
#include <utility>

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/eventfd.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include "platform/os/companion_process.h"
#include "platform/os/descriptor_posix.h"

namespace os {
namespace {

// Descriptors of the process that is started.
constexpr int kSocket = 3;
constexpr int kMemory = 4;
// Above both of them.
constexpr int kFirstFree = 10;
// For a process that was killed; one that hangs in a driver is not waited for.
constexpr std::chrono::milliseconds kKillLimit{2'000};

[[noreturn]] void ThrowError(int error, const char* what) {
  throw std::system_error(error, std::generic_category(), what);
}

int Checked(int result, const char* what) {
  if (result < 0) {
    ThrowError(errno, what);
  }
  return result;
}

class SpawnActions {
 public:
  SpawnActions() { ::posix_spawn_file_actions_init(&actions_); }
  ~SpawnActions() { ::posix_spawn_file_actions_destroy(&actions_); }
  SpawnActions(const SpawnActions&) = delete;
  SpawnActions& operator=(const SpawnActions&) = delete;
  posix_spawn_file_actions_t* get() { return &actions_; }

 private:
  posix_spawn_file_actions_t actions_{};
};

class SpawnAttributes {
 public:
  SpawnAttributes() { ::posix_spawnattr_init(&attributes_); }
  ~SpawnAttributes() { ::posix_spawnattr_destroy(&attributes_); }
  SpawnAttributes(const SpawnAttributes&) = delete;
  SpawnAttributes& operator=(const SpawnAttributes&) = delete;
  posix_spawnattr_t* get() { return &attributes_; }

 private:
  posix_spawnattr_t attributes_{};
};

int Spawn(const std::string& program, const std::vector<std::string>& arguments, int socket,
          int memory) {
  // Duplicates above the final numbers, so that neither overwrites the other.
  const Descriptor highSocket(
      Checked(::fcntl(socket, F_DUPFD_CLOEXEC, kFirstFree), "cannot share a socket"));
  const Descriptor highMemory(
      Checked(::fcntl(memory, F_DUPFD_CLOEXEC, kFirstFree), "cannot share memory"));
  SpawnActions actions;
  ::posix_spawn_file_actions_addopen(actions.get(), STDIN_FILENO, "/dev/null", O_RDONLY, 0);
  ::posix_spawn_file_actions_addopen(actions.get(), STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
  ::posix_spawn_file_actions_addopen(actions.get(), STDERR_FILENO, "/dev/null", O_WRONLY, 0);
  ::posix_spawn_file_actions_adddup2(actions.get(), highSocket.get(), kSocket);
  ::posix_spawn_file_actions_adddup2(actions.get(), highMemory.get(), kMemory);
  // This process may block signals in its threads.
  SpawnAttributes attributes;
  sigset_t none;
  sigset_t all;
  ::sigemptyset(&none);
  ::sigfillset(&all);
  ::posix_spawnattr_setflags(
      attributes.get(), POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETPGROUP);
  ::posix_spawnattr_setsigmask(attributes.get(), &none);
  ::posix_spawnattr_setsigdefault(attributes.get(), &all);
  ::posix_spawnattr_setpgroup(attributes.get(), 0);
  std::vector<std::string> texts{program};
  texts.insert(texts.end(), arguments.begin(), arguments.end());
  std::vector<char*> pointers;
  pointers.reserve(texts.size() + 1);
  for (std::string& text : texts) {
    pointers.push_back(text.data());
  }
  pointers.push_back(nullptr);
  pid_t id = -1;
  const int error = ::posix_spawn(&id, program.c_str(), actions.get(), attributes.get(),
                                  pointers.data(), environ);
  if (error != 0) {
    ThrowError(error, program.c_str());
  }
  return id;
}

}  // namespace

MessageSocket::MessageSocket(int descriptor)
    : descriptor_(descriptor), wake_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
  if (wake_ < 0) {
    const int error = errno;
    ::close(descriptor_);
    ThrowError(error, "no event");
  }
}

MessageSocket::~MessageSocket() {
  ::close(descriptor_);
  ::close(wake_);
}

bool MessageSocket::Send(std::span<const std::uint8_t> message) const {
  return ::send(descriptor_, message.data(), message.size(), MSG_DONTWAIT | MSG_NOSIGNAL) ==
         static_cast<ssize_t>(message.size());
}

MessageSocket::Received MessageSocket::Receive(std::vector<std::uint8_t>& message,
                                               std::chrono::milliseconds limit) const {
  std::array<pollfd, 2> waiting{pollfd{descriptor_, POLLIN, 0}, pollfd{wake_, POLLIN, 0}};
  if (::poll(waiting.data(), waiting.size(), static_cast<int>(limit.count())) < 0) {
    return Received::kNothing;
  }
  if ((waiting[1].revents & POLLIN) != 0) {
    std::uint64_t count = 0;
    static_cast<void>(::read(wake_, &count, sizeof(count)));
  }
  if (waiting[0].revents == 0) {
    return Received::kNothing;
  }
  message.resize(kMaxMessage);
  const ssize_t length = ::recv(descriptor_, message.data(), message.size(), MSG_DONTWAIT);
  if (length < 0 && (errno == EAGAIN || errno == EINTR)) {
    return Received::kNothing;
  }
  message.resize(static_cast<std::size_t>(std::max<ssize_t>(length, 0)));
  return length > 0 ? Received::kMessage : Received::kClosed;
}

void MessageSocket::Wake() const {
  constexpr std::uint64_t kOne = 1;
  static_cast<void>(::write(wake_, &kOne, sizeof(kOne)));
}

SharedMemory SharedMemory::Create(std::size_t size) {
  Descriptor memory(Checked(::memfd_create("frames", MFD_CLOEXEC), "no shared memory"));
  Checked(::ftruncate(memory.get(), static_cast<off_t>(size)), "no shared memory");
  return SharedMemory(memory.Take());
}

SharedMemory SharedMemory::Of(int descriptor) {
  return SharedMemory(descriptor);
}

SharedMemory::SharedMemory(int descriptor) : descriptor_(descriptor) {
  Descriptor owned(descriptor);
  struct stat properties {};
  Checked(::fstat(descriptor, &properties), "no shared memory");
  size_ = static_cast<std::size_t>(properties.st_size);
  if (size_ > 0) {
    void* const start = ::mmap(nullptr, size_, PROT_READ | PROT_WRITE, MAP_SHARED, descriptor, 0);
    if (start == MAP_FAILED) {
      ThrowError(errno, "no shared memory");
    }
    start_ = static_cast<std::uint8_t*>(start);
  }
  owned.Take();
}

SharedMemory::SharedMemory(SharedMemory&& other) noexcept
    : descriptor_(std::exchange(other.descriptor_, -1)),
      start_(std::exchange(other.start_, nullptr)),
      size_(std::exchange(other.size_, 0)) {}

SharedMemory::~SharedMemory() {
  if (start_ != nullptr) {
    ::munmap(start_, size_);
  }
  if (descriptor_ >= 0) {
    ::close(descriptor_);
  }
}

struct CompanionProcess::Ends {
  static Ends Make() {
    std::array<int, 2> ends{};
    Checked(::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends.data()), "no socket");
    return {Descriptor(ends[0]), Descriptor(ends[1])};
  }
  Descriptor own;
  Descriptor other;
};

CompanionProcess::CompanionProcess(const std::string& program,
                                   const std::vector<std::string>& arguments, std::size_t memory)
    : CompanionProcess(program, arguments, memory, Ends::Make()) {}

CompanionProcess::CompanionProcess(const std::string& program,
                                   const std::vector<std::string>& arguments, std::size_t memory,
                                   Ends ends)
    : memory_(SharedMemory::Create(memory)),
      socket_(ends.own.Take()),
      id_(Spawn(program, arguments, ends.other.get(), memory_.descriptor())) {}

CompanionProcess::~CompanionProcess() {
  if (!status_) {
    ::kill(id_, SIGKILL);
    WaitForEnd(kKillLimit);
  }
}

std::optional<int> CompanionProcess::WaitForEnd(std::chrono::milliseconds limit) {
  if (status_) {
    return status_;
  }
  const Descriptor process(static_cast<int>(::syscall(SYS_pidfd_open, id_, 0)));
  pollfd ended{process.get(), POLLIN, 0};
  static_cast<void>(::poll(&ended, 1, static_cast<int>(limit.count())));
  int status = 0;
  if (::waitpid(id_, &status, WNOHANG) == id_) {
    status_ = WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
  }
  return status_;
}

CompanionSide::CompanionSide() : memory(SharedMemory::Of(kMemory)), socket(kSocket) {
  ::fcntl(kMemory, F_SETFD, FD_CLOEXEC);
  ::fcntl(kSocket, F_SETFD, FD_CLOEXEC);
  ::prctl(PR_SET_PDEATHSIG, SIGKILL);
  // Only its parent ends it.
  ::signal(SIGINT, SIG_IGN);
  ::signal(SIGTERM, SIG_IGN);
  ::signal(SIGHUP, SIG_IGN);
}

}  // namespace os
