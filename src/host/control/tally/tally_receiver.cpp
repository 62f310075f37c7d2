#include "host/control/tally/tally_receiver.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <list>
#include <map>
#include <optional>
#include <span>
#include <utility>

#include <nlohmann/json.hpp>

#include "host/control/tally/tally_message.h"
#include "platform/os/sockets.h"

namespace host::control {
namespace {

using Lamp = TallyMessage::Lamp;

constexpr const char* kGreen = "#00C000";
constexpr const char* kAmber = "#FFA000";
constexpr std::size_t kMaxBuffer = 65536;
// A controller whose connection broke without notice does not occupy a connection for longer.
constexpr std::chrono::milliseconds kMaxSilence{600'000};
constexpr std::chrono::milliseconds kRetry{50};

// The tally that a channel is to show.
struct Shown {
  bool red = false;
  Lamp label = Lamp::kOff;  // green or amber
  std::string text;         // empty: none was sent
  bool operator==(const Shown&) const = default;
};

}  // namespace

// Used by the receiving thread only, except finished_.
class TallyReceiver::Receiving : public std::enable_shared_from_this<Receiving> {
 public:
  Receiving(const config::TallyOptions& options, WallControl& control)
      : options_(options), control_(control) {
    for (const config::TallyOptions::Listen& listen : options_.listen) {
      sockets_.push_back(listen.isTcp ? os::Socket::ListenTcp(listen.at.host, listen.at.port)
                                      : os::Socket::BindUdp(listen.at.host, listen.at.port));
    }
  }

  std::vector<std::uint16_t> ports() const {
    std::vector<std::uint16_t> ports;
    for (const os::Socket& socket : sockets_) {
      ports.push_back(socket.port());
    }
    return ports;
  }

  // The receiving thread, until Stop.
  void Run() {
    while (!stopping_) {
      std::vector<os::SocketPoll::Item> items;
      for (std::size_t i = 0; i < sockets_.size(); ++i) {
        items.push_back({&sockets_[i], !(isPaused_ && options_.listen[i].isTcp)});
      }
      for (const Connection& connection : connections_) {
        items.push_back({&connection.socket});
      }
      poll_.Wait(items, isRetrying_ || isPaused_ ? kRetry : kMaxSilence);
      isPaused_ = false;
      TakeFinished();
      auto item = items.begin() + std::ssize(sockets_);
      for (auto connection = connections_.begin(); connection != connections_.end(); ++item) {
        const bool stays = (!item->canReceive && !item->hasEnded) || Read(*connection);
        const bool isSilent = Clock::now() - connection->heard > kMaxSilence;
        connection = stays && !isSilent ? std::next(connection) : connections_.erase(connection);
      }
      for (std::size_t i = 0; i < sockets_.size(); ++i) {
        if (items[i].canReceive) {
          options_.listen[i].isTcp ? Accept(sockets_[i]) : ReadDatagram(sockets_[i]);
        }
      }
      SubmitWhatChanged();
    }
  }

  void Stop() {
    stopping_ = true;
    poll_.Wake();
  }

 private:
  using Clock = std::chrono::steady_clock;
  enum class Outcome { kAccepted, kRefused, kBusy };
  struct Connection {
    os::Socket socket;
    TallyParser parser;
    Clock::time_point heard;
  };
  struct Channel {
    Shown wanted;
    Shown sent;
    Shown before;                       // the one sent before that
    std::optional<std::string> colour;  // of the label, before green or amber
    bool isOnItsWay = false;
    std::size_t fields = 0;         // of the request that is or was on its way
    bool isSplit = false;           // what was refused together is requested field by field
    Clock::time_point notBefore{};  // the earliest time of the next request
  };

  bool IsAllowed(const std::string& sender) const {
    return options_.senders.empty() ||
           std::any_of(options_.senders.begin(), options_.senders.end(),
                       [&](const auto& network) { return os::IsInNetwork(sender, network); });
  }

  void Accept(os::Socket& listener) {
    std::string sender;
    os::Socket socket = listener.Accept(&sender);
    isPaused_ = isPaused_ || !socket.IsValid();
    if (socket.IsValid() && IsAllowed(sender) && connections_.size() < kMaxConnections) {
      connections_.push_back({std::move(socket), TallyParser(options_.protocol), Clock::now()});
    }
  }

  void ReadDatagram(os::Socket& socket) {
    std::string sender;
    const std::optional<std::size_t> count = socket.Receive(buffer_, &sender);
    if (count && IsAllowed(sender)) {
      TallyParser parser(options_.protocol);
      Take(parser.ReadDatagram(Received(*count)));
    }
  }

  // False when the connection has ended.
  bool Read(Connection& connection) {
    const std::optional<std::size_t> count = connection.socket.Receive(buffer_);
    if (count && *count > 0) {
      connection.heard = Clock::now();
      Take(connection.parser.ReadStream(Received(*count)));
    }
    return !count || *count > 0;
  }

  std::span<const std::uint8_t> Received(std::size_t count) const {
    return {reinterpret_cast<const std::uint8_t*>(buffer_.data()), count};
  }

  void Take(const std::vector<TallyMessage>& messages) {
    if (messages.empty()) {
      return;
    }
    const std::shared_ptr<const WallState> state = control_.state();
    for (const TallyMessage& message : messages) {
      const std::string* const named = NameOf(message.display, *state);
      for (const std::size_t slot : state->order) {
        const std::string& name = state->slots[slot]->settings.name;
        if (message.isForAll || (named != nullptr && name == *named)) {
          Show(message, channels_[name].wanted);
        }
      }
    }
  }

  // Null when no channel has the display.
  const std::string* NameOf(int display, const WallState& state) const {
    if (const auto named = options_.displays.find(display); named != options_.displays.end()) {
      return &named->second;
    }
    for (const std::size_t slot : state.order) {
      if (state.slots[slot]->settings.tallyIndex == display) {
        return &state.slots[slot]->settings.name;
      }
    }
    return nullptr;
  }

  void Show(const TallyMessage& message, Shown& shown) const {
    const auto hasLamp = [&](Lamp lamp) {
      return std::find(message.lamps.begin(), message.lamps.end(), lamp) != message.lamps.end();
    };
    const auto hasBit = [&](const std::vector<int>& numbers) {
      return std::any_of(numbers.begin(), numbers.end(), [&](int number) {
        return message.bits.at(static_cast<std::size_t>(number - 1));
      });
    };
    shown.red = message.hasLamps ? hasLamp(Lamp::kRed) : hasBit(options_.red);
    const bool green = message.hasLamps ? hasLamp(Lamp::kGreen) : hasBit(options_.green);
    shown.label = hasLamp(Lamp::kAmber) ? Lamp::kAmber : green ? Lamp::kGreen : Lamp::kOff;
    if (options_.text && !message.text.empty()) {
      shown.text = message.text;
    }
  }

  void SubmitWhatChanged() {
    isRetrying_ = false;
    const std::shared_ptr<const WallState> state = control_.state();
    // Forget channels that were removed.
    std::erase_if(channels_, [&](const auto& one) {
      return !one.second.isOnItsWay && state->Find(one.first) == nullptr;
    });
    for (auto& [name, channel] : channels_) {
      const ChannelEntry* const entry = state->Find(name);
      if (channel.isOnItsWay || entry == nullptr || channel.sent == channel.wanted) {
        continue;
      }
      if (Clock::now() >= channel.notBefore) {
        Submit(name, channel, *entry);
      } else {
        isRetrying_ = true;
      }
    }
  }

  void Submit(const std::string& name, Channel& channel, const ChannelEntry& entry) {
    const Shown before = channel.sent;
    const Shown& wanted = channel.wanted;
    Shown next = before;
    nlohmann::json command = {{"command", "set"}, {"channel", name}};
    const std::size_t empty = command.size();
    const auto takesMore = [&] { return !channel.isSplit || command.size() == empty; };
    if (wanted.red != before.red) {
      command["selected"] = next.red = wanted.red;
    }
    if (wanted.label != before.label && takesMore()) {
      next.label = wanted.label;
      if (before.label == Lamp::kOff) {
        channel.colour = entry.settings.options.colour;
      }
      command["colour"] = wanted.label == Lamp::kGreen   ? kGreen
                          : wanted.label == Lamp::kAmber ? kAmber
                                                         : channel.colour.value_or("#FFFFFF");
    }
    if (wanted.text != before.text && takesMore()) {
      command["label"] = next.text = wanted.text;
    }
    channel.before = std::exchange(channel.sent, next);
    channel.fields = command.size() - empty;
    channel.isOnItsWay = true;
    control_.Submit(
        {std::move(command), "tally", {}}, [self = shared_from_this(), name](const Result& result) {
          const auto* const error = std::get_if<CommandError>(&result);
          self->Finish(name, error == nullptr                             ? Outcome::kAccepted
                             : error->kind() == CommandError::Kind::kBusy ? Outcome::kBusy
                                                                          : Outcome::kRefused);
        });
  }

  // Any thread.
  void Finish(const std::string& name, Outcome outcome) {
    {
      const os::MutexLock guard(lock_);
      finished_[name] = outcome;
    }
    poll_.Wake();
  }

  void TakeFinished() {
    std::map<std::string, Outcome> finished;
    {
      const os::MutexLock guard(lock_);
      finished.swap(finished_);
    }
    for (const auto& [name, outcome] : finished) {
      Channel& channel = channels_[name];
      channel.isOnItsWay = false;
      if (outcome == Outcome::kBusy) {
        channel.sent = channel.before;
        channel.notBefore = Clock::now() + kRetry;
      } else if (outcome == Outcome::kRefused && channel.fields > 1) {
        // Perhaps for one of the fields: the others are not to be lost with it.
        channel.sent = channel.before;
        channel.isSplit = true;
      } else {
        channel.isSplit = channel.isSplit && channel.sent != channel.wanted;
      }
    }
  }

  const config::TallyOptions options_;
  WallControl& control_;
  os::SocketPoll poll_;
  std::atomic<bool> stopping_{false};
  std::vector<os::Socket> sockets_;  // as options_.listen
  std::list<Connection> connections_;
  std::map<std::string, Channel> channels_;  // by name
  bool isRetrying_ = false;
  bool isPaused_ = false;  // nothing could be accepted: perhaps too many files are open
  std::array<char, kMaxBuffer> buffer_{};
  os::Mutex lock_;
  std::map<std::string, Outcome> finished_ GUARDED_BY(lock_);
};

TallyReceiver::TallyReceiver(const config::TallyOptions& options, WallControl& control)
    : receiving_(std::make_shared<Receiving>(options, control)) {
  thread_ = std::make_unique<os::Thread>([receiving = receiving_] { receiving->Run(); }, "tally");
}

TallyReceiver::~TallyReceiver() {
  receiving_->Stop();
  thread_->Wait(os::kInfinite);
}

std::vector<std::uint16_t> TallyReceiver::ports() const {
  return receiving_->ports();
}

}  // namespace host::control
