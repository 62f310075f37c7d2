#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include "host/cli/commands.h"
#include "host/cli/message_log.h"
#include "host/config/wall.h"
#include "host/feed/feed_pin.h"
#include "host/session/composer_filter.h"
#include "platform/com/com.h"
#include "platform/os/process.h"
#include "platform/os/registry.h"

namespace host::cli {

void DefineRegister(CLI::App& app, RegisterOptions& options) {
  app.add_option("FILE", options.library, "the filter library")
      ->required()
      ->check(CLI::ExistingFile);
}

void DefinePins(CLI::App& app, PinsOptions& options) {
  app.add_option("--inputs", options.inputs, "number of inputs")
      ->capture_default_str()
      ->check(CLI::Range(0, static_cast<int>(config::kMaxChannels)));
  app.add_flag("--json", options.json, "print the result as JSON")->envname("TAVREL_JSON");
  DefineGraph(app, options.graph);
}

namespace {

// Calls an entry point of a library that changes the registry.
ExitCode CallEntryPoint(const std::filesystem::path& library, const char* name, const char* done,
                        Streams& streams) {
  const std::string path = std::filesystem::absolute(library).string();
  const std::shared_ptr<os::Module> module = os::Module::Load(path);
  auto* const entry = module->Find<HRESULT()>(name);
  if (entry == nullptr) {
    throw GraphError(path + " is not a filter library: it exports no " + name);
  }
  Check(entry(), std::string("change the registry ") + os::Registry::OfUser().File().string());
  streams.out << path << ": " << done << "\n";
  return ExitCode::kDone;
}

}  // namespace

ExitCode Register(const RegisterOptions& options, Streams& streams) {
  return CallEntryPoint(options.library, "DllRegisterServer", "registered", streams);
}

ExitCode Unregister(const RegisterOptions& options, Streams& streams) {
  return CallEntryPoint(options.library, "DllUnregisterServer", "no longer registered", streams);
}

ExitCode Pins(const PinsOptions& options, Streams& streams) {
  const std::string library =
      options.graph.library.empty() ? FindComposerLibrary() : options.graph.library.string();
  MessageLog messages(streams, options.graph.log);
  ComposerFilter composer(library, {}, static_cast<std::size_t>(options.inputs),
                          &messages.logger());
  for (LONG i = 0; i < options.inputs; ++i) {
    composer.AddInput(i, nullptr);
  }
  nlohmann::ordered_json report = nlohmann::ordered_json::array();
  ComPtr<IEnumPins> pins;
  Check(composer.filter()->EnumPins(pins.Put()), "enumerate the composer's pins");
  ComPtr<IPin> pin;
  for (int position = 0; pins->Next(1, pin.Put(), nullptr) == S_OK; ++position) {
    PIN_INFO info{};
    Check(pin->QueryPinInfo(&info), "read a pin's name");
    const auto filter = ComPtr<IBaseFilter>::Adopt(info.pFilter);
    const std::string name = NarrowToAscii(info.achName);
    const char* const direction = info.dir == PINDIR_INPUT ? "input" : "output";
    if (options.json) {
      report.push_back({{"position", position}, {"name", name}, {"direction", direction}});
    } else {
      streams.out << position << "  " << direction << "  " << name << "\n";
    }
  }
  if (options.json) {
    streams.out << report.dump(2) << "\n";
  }
  return ExitCode::kDone;
}

}  // namespace host::cli
