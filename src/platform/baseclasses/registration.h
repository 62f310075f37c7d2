// Entering a library's classes and filters into the registry, and taking them out.
#pragma once

#include "platform/baseclasses/class_factory.h"

// The registry's keys. Under a class's key stand its name (default value) and the subkey
// InprocServer32 with the library's path; under a filter's key its name, class, merit and a subkey
// for each pin, numbered from 0.
inline constexpr const char* kClassesKey = "CLSID";
inline constexpr const char* kServerKey = "InprocServer32";
inline constexpr const char* kFiltersKey = "Filters";

// Enters the class (and its filter setup, when it has one) with the path of the library that holds
// this code. Errors are those of the registry as HRESULTs of facility Win32.
HRESULT RegisterClassTemplate(const CFactoryTemplate& entry);
// Takes filter and class out again; what is not there is no error.
HRESULT UnregisterClassTemplate(const CFactoryTemplate& entry);

HRESULT RegisterFilterSetup(const AMOVIESETUP_FILTER& setup);
HRESULT UnregisterFilterSetup(const CLSID& clsid);
