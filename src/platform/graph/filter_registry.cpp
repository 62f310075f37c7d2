#include "platform/graph/filter_registry.h"

#include <array>
#include <charconv>
#include <stdexcept>

#include "platform/baseclasses/class_factory.h"
#include "platform/dshow/vfw_errors.h"
#include "platform/os/registry.h"

namespace {

RegisteredFilter ReadFilter(const os::RegistryTree& tree, const std::string& guid) {
  const std::string key = std::string(kFiltersKey) + "\\" + guid;
  RegisteredFilter filter;
  GuidFromString(guid, &filter.clsid);
  filter.name = tree.Get(key, "").value_or("");
  const std::string merit = tree.Get(key, "Merit").value_or("0");
  std::from_chars(merit.data(), merit.data() + merit.size(), filter.merit);
  std::string server(kClassesKey);
  server.append("\\").append(guid).append("\\").append(kServerKey);
  filter.library = tree.Get(server, "").value_or("");
  for (const std::string& number : tree.Subkeys(key)) {
    std::string pinKey = key;
    pinKey.append("\\").append(number);
    filter.pins.push_back({tree.Get(pinKey, "").value_or(""),
                           tree.Get(pinKey, "Direction") == "output",
                           tree.Get(pinKey, "Many") == "1"});
  }
  return filter;
}

std::string TextOf(HRESULT hr) {
  std::array<char, 160> text{};
  AMGetErrorTextA(hr, text.data(), static_cast<DWORD>(text.size()));
  return text.data();
}

}  // namespace

std::vector<RegisteredFilter> ListRegisteredFilters() {
  const os::RegistryTree tree = os::Registry::OfUser().Read();
  std::vector<RegisteredFilter> filters;
  for (const std::string& guid : tree.Subkeys(kFiltersKey)) {
    filters.push_back(ReadFilter(tree, guid));
  }
  return filters;
}

LoadedFilter CreateFilter(const std::string& library, REFCLSID clsid) {
  LoadedFilter loaded;
  loaded.library = os::Module::Load(library);
  using GetClassObject = HRESULT(REFCLSID, REFIID, void**);
  GetClassObject* const getClassObject = loaded.library->Find<GetClassObject>("DllGetClassObject");
  if (getClassObject == nullptr) {
    throw std::runtime_error(library + " is not a filter library: it exports no DllGetClassObject");
  }
  ComPtr<IClassFactory> factory;
  HRESULT hr = getClassObject(clsid, IID_IClassFactory, factory.PutVoid());
  if (SUCCEEDED(hr)) {
    hr = factory->CreateInstance(nullptr, IID_IBaseFilter, loaded.filter.PutVoid());
  }
  if (FAILED(hr)) {
    throw std::runtime_error(library + " does not make a filter of class " + GuidToString(clsid) +
                             ": " + TextOf(hr));
  }
  return loaded;
}
