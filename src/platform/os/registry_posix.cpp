#include <cerrno>
#include <cstdlib>
#include <sstream>
#include <stdexcept>
#include <system_error>

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include "platform/os/descriptor_posix.h"
#include "platform/os/process.h"
#include "platform/os/registry.h"

namespace os {
namespace {

constexpr char kKeySeparator = '\\';

std::string Escape(const std::string& text) {
  std::string escaped;
  for (const char c : text) {
    switch (c) {
      case '\n':
        escaped += "\\n";
        break;
      case '\r':
        escaped += "\\r";
        break;
      case '=':
        escaped += "\\e";
        break;
      case '\\':
        escaped += "\\\\";
        break;
      default:
        escaped += c;
    }
  }
  return escaped;
}

std::string Unescape(const std::string& text) {
  std::string plain;
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] != '\\' || i + 1 == text.size()) {
      plain += text[i];
      continue;
    }
    switch (text[++i]) {
      case 'n':
        plain += '\n';
        break;
      case 'r':
        plain += '\r';
        break;
      case 'e':
        plain += '=';
        break;
      default:
        plain += text[i];
    }
  }
  return plain;
}

[[noreturn]] void ThrowErrno(const std::string& what) {
  throw std::system_error(errno, std::generic_category(), what);
}

std::string ReadAll(int fd, const std::filesystem::path& file) {
  std::string text;
  char buffer[4096];
  while (true) {
    const ssize_t got = ::read(fd, buffer, sizeof(buffer));
    if (got == 0) {
      return text;
    }
    if (got > 0) {
      text.append(buffer, static_cast<std::size_t>(got));
    } else if (errno != EINTR) {
      ThrowErrno("cannot read the registry " + file.string());
    }
  }
}

void WriteAll(int fd, const std::string& text, const std::filesystem::path& file) {
  std::size_t done = 0;
  while (done < text.size()) {
    const ssize_t put = ::write(fd, text.data() + done, text.size() - done);
    if (put >= 0) {
      done += static_cast<std::size_t>(put);
    } else if (errno != EINTR) {
      ThrowErrno("cannot write the registry " + file.string());
    }
  }
}

RegistryTree ReadFile(const std::filesystem::path& path) {
  const Descriptor file(path, O_RDONLY);
  if (!file.IsOpen()) {
    if (errno == ENOENT || errno == ENOTDIR) {
      return {};
    }
    ThrowErrno("cannot open the registry " + path.string());
  }
  try {
    return RegistryTree::Parse(ReadAll(file.get(), path));
  } catch (const std::system_error&) {
    throw;
  } catch (const std::runtime_error& error) {
    throw std::runtime_error("the registry " + path.string() + " is damaged: " + error.what());
  }
}

}  // namespace

void RegistryTree::Set(const std::string& key, const std::string& name, const std::string& value) {
  keys_[key][name] = value;
}

std::optional<std::string> RegistryTree::Get(const std::string& key,
                                             const std::string& name) const {
  const auto found = keys_.find(key);
  if (found == keys_.end()) {
    return std::nullopt;
  }
  const auto value = found->second.find(name);
  return value == found->second.end() ? std::nullopt : std::optional(value->second);
}

bool RegistryTree::Erase(const std::string& key) {
  const std::string below = key + kKeySeparator;
  return std::erase_if(keys_, [&](const auto& entry) {
           return entry.first == key || entry.first.starts_with(below);
         }) > 0;
}

std::vector<std::string> RegistryTree::Subkeys(const std::string& key) const {
  const std::string below = key + kKeySeparator;
  std::vector<std::string> names;
  for (const auto& [path, values] : keys_) {
    if (path.starts_with(below)) {
      const std::string name =
          path.substr(below.size(), path.find(kKeySeparator, below.size()) - below.size());
      if (names.empty() || names.back() != name) {
        names.push_back(name);
      }
    }
  }
  return names;
}

void RegistryTree::AddMissing(const RegistryTree& other) {
  keys_.insert(other.keys_.begin(), other.keys_.end());
}

RegistryTree RegistryTree::Parse(const std::string& text) {
  RegistryTree tree;
  std::istringstream lines(text);
  std::string line;
  std::string key;
  bool inKey = false;
  for (int number = 1; std::getline(lines, line); ++number) {
    if (line.empty()) {
      continue;
    }
    const std::size_t equals = line.find('=');
    // Those of keys and names are escaped.
    if (line.front() == '[' && line.back() == ']' && equals == std::string::npos) {
      key = Unescape(line.substr(1, line.size() - 2));
      tree.keys_[key];
      inKey = true;
      continue;
    }
    if (!inKey || equals == std::string::npos) {
      throw std::runtime_error("line " + std::to_string(number) +
                               " is neither a [key] nor a name=value under one");
    }
    tree.keys_[key][Unescape(line.substr(0, equals))] = Unescape(line.substr(equals + 1));
  }
  return tree;
}

std::string RegistryTree::Format() const {
  std::string text;
  for (const auto& [key, values] : keys_) {
    text += "[" + Escape(key) + "]\n";
    for (const auto& [name, value] : values) {
      text += Escape(name) + "=" + Escape(value) + "\n";
    }
    text += "\n";
  }
  return text;
}

Registry::Registry(std::filesystem::path file, std::vector<std::filesystem::path> installed)
    : file_(std::move(file)), installed_(std::move(installed)) {}

Registry Registry::OfUser() {
  const auto variable = [](const char* name) -> std::string {
    // NOLINTNEXTLINE(concurrency-mt-unsafe): nobody changes the environment
    const char* const value = std::getenv(name);
    return value != nullptr ? value : "";
  };
  if (const std::string own = variable("TAVREL_REGISTRY"); !own.empty()) {
    return Registry(own);
  }
  std::vector<std::filesystem::path> installed = DataFolders();
  for (std::filesystem::path& folder : installed) {
    folder /= "registry";
  }
  std::filesystem::path data = variable("XDG_DATA_HOME");
  if (const std::filesystem::path home = variable("HOME"); !data.is_absolute()) {
    data = home.is_absolute() ? home / ".local" / "share" : std::filesystem::path();
  }
  // A service may have no home.
  return Registry(data.empty() ? data : data / "tavrel" / "registry", std::move(installed));
}

RegistryTree Registry::Read() const {
  RegistryTree tree = file_.empty() ? RegistryTree() : ReadFile(file_);
  for (const std::filesystem::path& file : installed_) {
    tree.AddMissing(ReadFile(file));
  }
  return tree;
}

void Registry::Update(const std::function<void(RegistryTree&)>& change) {
  if (file_.empty()) {
    throw std::runtime_error(
        "there is no home folder for the registry: set HOME, or TAVREL_REGISTRY to a file");
  }
  std::filesystem::create_directories(file_.parent_path());
  const std::filesystem::path lockFile = file_.string() + ".lock";
  const Descriptor lock(lockFile, O_RDWR | O_CREAT);
  if (!lock.IsOpen()) {
    ThrowErrno("cannot open " + lockFile.string());
  }
  // Held until the descriptor is closed.
  while (::flock(lock.get(), LOCK_EX) != 0) {
    if (errno != EINTR) {
      ThrowErrno("cannot lock " + lockFile.string());
    }
  }
  RegistryTree tree = ReadFile(file_);
  change(tree);
  const std::filesystem::path next = file_.string() + ".new";
  {
    const Descriptor file(next, O_WRONLY | O_CREAT | O_TRUNC);
    if (!file.IsOpen()) {
      ThrowErrno("cannot write " + next.string());
    }
    WriteAll(file.get(), tree.Format(), next);
    if (::fsync(file.get()) != 0) {
      ThrowErrno("cannot write " + next.string());
    }
  }
  std::filesystem::rename(next, file_);
}

}  // namespace os
