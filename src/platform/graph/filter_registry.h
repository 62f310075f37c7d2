// The registry of filters: what is registered, and making a registered filter.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "platform/com/com.h"
#include "platform/dshow/filters.h"
#include "platform/os/process.h"

// A pin kind of a registered filter.
struct RegisteredPin {
  std::string name;
  bool isOutput = false;
  bool many = false;
};

struct RegisteredFilter {
  CLSID clsid{};
  std::string name;
  DWORD merit = 0;
  std::string library;  // absolute path
  std::vector<RegisteredPin> pins;
};

// Every registered filter in order of its class. Throws std::runtime_error when the registry cannot
// be read.
std::vector<RegisteredFilter> ListRegisteredFilters();

// An object of a library, and the library that must stay loaded as long as the object lives:
// release the object first.
struct LoadedFilter {
  std::shared_ptr<os::Module> library;
  ComPtr<IBaseFilter> filter;
};

// Loads a filter library and makes one object of a class through its class factory. Throws
// std::runtime_error with the library, the class and the reason.
LoadedFilter CreateFilter(const std::string& library, REFCLSID clsid);
