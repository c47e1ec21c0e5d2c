// The sockets that the lookup service listens on.
#ifndef TSL_TOOLS_SERVE_SOCKET_LISTENSOCKET_H
#define TSL_TOOLS_SERVE_SOCKET_LISTENSOCKET_H

#include <string>
#include <vector>

#include "disk/Descriptor.h"
#include "serve/base/ListenAddress.h"

namespace Tessel::Serve {

// A listening socket, non-blocking. The object closes it, and removes the file of a Unix socket
// that it created unless another one replaced it. Services that begin or end at the same path at
// the same time wait for each other, at a file with ".lock" after the path that is there meanwhile.
// One thread.
class ListenSocket {
 public:
  // Listens on `address`. The socket of a service that ended without removing it is replaced; the
  // file has its mode and group before anybody can connect. Throws Tool::Failure, ExitCode::Usage
  // or Configuration, when it cannot listen there.
  explicit ListenSocket(const ListenAddress& address);
  // Throws what the constructor would, as far as that can be known without listening. Creates no
  // file. A service that listens there already is no fault.
  static void check(const ListenAddress& address);
  // Takes over the socket `descriptor`, which systemd created, and its file.
  ListenSocket(int descriptor, Protocol protocol);
  ~ListenSocket();
  ListenSocket(ListenSocket&& other) noexcept;
  ListenSocket& operator=(ListenSocket&& other) = delete;

  [[nodiscard]] int descriptor() const noexcept { return m_descriptor.get(); }
  [[nodiscard]] Protocol protocol() const noexcept { return m_protocol; }
  // Where it listens, for messages.
  [[nodiscard]] std::string name() const;
  // The descriptor, which is the caller's from now on. The file stays the object's.
  int release() noexcept;

 private:
  // Nothing yet; the object exists from then on, so that it cleans up after a failure.
  explicit ListenSocket(Protocol protocol) : m_protocol(protocol) {}

  void listenUnix(const ListenAddress& address);
  void listenInet(const ListenAddress& address);

  Tool::Descriptor m_descriptor;
  Protocol m_protocol;
  std::string m_path;  // Of a file to remove; empty for none.
  // Open on that file, so that no other file gets its inode number meanwhile.
  Tool::Descriptor m_file;
  bool m_isListening = false;  // At the path, which was made under another name.
};

// The sockets that systemd handed over (LISTEN_FDS, see sd_listen_fds(3)): those named "line" are
// for the line protocol, and those named "policy" for policies. Empty when it handed over none.
// Throws Tool::Failure for a descriptor that is not a listening stream socket.
std::vector<ListenSocket> inheritedSockets();

}  // namespace Tessel::Serve

#endif
