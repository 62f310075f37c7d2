// What the system's resolver finds for a host.
#pragma once

#include <memory>

#include <netdb.h>

namespace os {

struct FreeAddresses {
  void operator()(addrinfo* list) const { ::freeaddrinfo(list); }
};
using HostAddresses = std::unique_ptr<addrinfo, FreeAddresses>;

// port: null for none. May wait for the network. Null, and the resolver's error for gai_strerror,
// when there is no such host.
inline HostAddresses FindHost(const char* host, const char* port, const addrinfo& wanted,
                              int* error) {
  addrinfo* found = nullptr;
  *error = ::getaddrinfo(host, port, &wanted, &found);
  return HostAddresses(*error == 0 ? found : nullptr);
}

}  // namespace os
