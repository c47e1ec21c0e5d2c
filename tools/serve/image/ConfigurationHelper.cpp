// The process that reads the configuration. Whatever the files do to it, the service goes on.
#include "serve/image/ConfigurationHelper.h"

#include <sys/prctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <exception>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>

#include "base/Exception.h"
#include "cmf/ApsGwServerCache.h"
#include "cmf/StateMark.h"
#include "failure/Failure.h"
#include "serve/image/ConfigurationImage.h"
#include "serve/image/Frame.h"

namespace Tessel::Serve {

namespace {

// How long files that somebody writes into are read again, and the pause before that.
constexpr std::chrono::milliseconds s_patience = 1s;
constexpr std::chrono::milliseconds s_pause = 20ms;

// What damaged files do to who reads them must not fill the disk with core dumps.
void s_endDamaged(int /*signal*/) {
  _exit(s_damagedStatus);
}

class Helper {
 public:
  explicit Helper(int descriptor) : m_descriptor(descriptor) {}

  void run() {
    while (isAsked()) {
      try {
        answer();
      } catch (const Exception& exception) {
        send(HelperFrame::Failed, Tool::reasonOf(exception));
      } catch (const std::exception& exception) {
        send(HelperFrame::Failed, exception.what());
      }
    }
  }

 private:
  // False when nobody will ask again.
  [[nodiscard]] bool isAsked() const {
    char any;
    return recv(m_descriptor, &any, sizeof(any), 0) == 1;
  }

  void answer() {
    if (m_sent && CMF::stateMark() == *m_sent) return send(HelperFrame::Same, "");
    const auto end = std::chrono::steady_clock::now() + s_patience;
    do {
      // The files may be others, or not what LMDB knows of them.
      CMF::RefApsGwServerCache::instance(true);
      const CMF::StateMark before = CMF::stateMark();
      const std::string copy = copyConfiguration([this] { send(HelperFrame::Reading, ""); });
      const CMF::StateMark after = CMF::stateMark();
      if (isNewest(before) && (after == before || isCommit(before, after))) {
        send(HelperFrame::Copy, copy);
        m_sent = before;
        return;
      }
      send(HelperFrame::Reading, "");
      std::this_thread::sleep_for(s_pause);
    } while (std::chrono::steady_clock::now() < end);
    throw std::runtime_error(
        "data.mdb was overwritten while programs use it: end them, except for this service, or"
        " rename a whole directory into place");
  }

  static bool isNewest(const CMF::StateMark& mark) { return mark.transaction == mark.newest; }

  // Others commit without disturbing who reads; who writes into the file does.
  static bool isCommit(const CMF::StateMark& before, const CMF::StateMark& after) {
    return before.files == after.files && before.transaction != after.transaction &&
           isNewest(after);
  }

  void send(HelperFrame kind, const std::string& text) const {
    if (text.size() > s_longestCopy) throw std::runtime_error("it is too large to be copied");
    const std::string bytes = encoded({static_cast<char>(kind), text});
    std::string_view left = bytes;
    while (!left.empty()) {
      const ssize_t sent = ::send(m_descriptor, left.data(), left.size(), MSG_NOSIGNAL);
      if (sent == -1) _exit(EXIT_FAILURE);  // Nobody is there any more.
      left.remove_prefix(static_cast<std::size_t>(sent));
    }
  }

  const int m_descriptor;
  std::optional<CMF::StateMark> m_sent;  // Of the last copy.
};

}  // namespace

int helpWithConfiguration(int descriptor) {
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  // Who stops the service may mean all its processes; this one ends with its socket.
  for (const int signal : {SIGTERM, SIGINT, SIGHUP}) std::signal(signal, SIG_IGN);
  for (const int signal : {SIGBUS, SIGSEGV, SIGFPE, SIGILL, SIGABRT}) {
    std::signal(signal, s_endDamaged);
  }
  Helper(descriptor).run();
  return EXIT_SUCCESS;
}

}  // namespace Tessel::Serve
