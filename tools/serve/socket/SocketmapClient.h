// Asks a lookup service as mail servers do, with the socketmap protocol.
#ifndef TSL_TOOLS_SERVE_SOCKET_SOCKETMAPCLIENT_H
#define TSL_TOOLS_SERVE_SOCKET_SOCKETMAPCLIENT_H

#include <string>

#include "disk/Descriptor.h"
#include "serve/base/ListenAddress.h"

namespace Tessel::Serve {

// One connection. One thread.
class SocketmapClient {
 public:
  // Connects. Throws Tool::Failure, `Unavailable`, when nobody listens; `Usage` for an address of
  // the line protocol.
  explicit SocketmapClient(const ListenAddress& address);

  // The reply to a request. Throws Tool::Failure, `Unavailable`, when there is none within half a
  // minute.
  std::string ask(const std::string& map, const std::string& key);

 private:
  [[noreturn]] void fail(const std::string& why) const;

  const std::string m_name;  // For messages.
  const Tool::Descriptor m_descriptor;
  std::string m_received;
};

}  // namespace Tessel::Serve

#endif
