// A process that works for this one.
#include "serve/image/HelperProcess.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <system_error>
#include <thread>

namespace Tessel::Serve {

namespace {

using namespace std::chrono_literals;

// How long the end of a process is waited for. One that the kernel holds up is left behind.
constexpr std::chrono::milliseconds s_endPatience = 1s;
constexpr std::chrono::milliseconds s_endStep = 5ms;

[[noreturn]] void s_fail(int error, const char* what) {
  throw std::system_error(error, std::generic_category(), what);
}

// Starts the program; 0, or the error.
int s_spawn(pid_t& pid, std::vector<char*>& words, int socket) {
  posix_spawn_file_actions_t files;
  posix_spawn_file_actions_init(&files);
  posix_spawn_file_actions_adddup2(&files, socket, STDIN_FILENO);
  posix_spawn_file_actions_addopen(&files, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
  posix_spawn_file_actions_addopen(&files, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
  // Connections of mail servers, for one: they would stay open there.
  posix_spawn_file_actions_addclosefrom_np(&files, STDERR_FILENO + 1);
  posix_spawnattr_t attributes;
  posix_spawnattr_init(&attributes);
  sigset_t none;
  sigemptyset(&none);
  posix_spawnattr_setsigmask(&attributes, &none);
  posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK);
  const int error = posix_spawn(&pid, words.front(), &files, &attributes, words.data(), environ);
  posix_spawnattr_destroy(&attributes);
  posix_spawn_file_actions_destroy(&files);
  return error;
}

}  // namespace

HelperProcess::HelperProcess(const std::vector<std::string>& command) {
  std::vector<std::string> texts = command;
  // The last one stays null, which ends the list.
  std::vector<char*> words(texts.size() + 1);
  std::transform(texts.begin(), texts.end(), words.begin(),
                 [](std::string& text) { return text.data(); });
  int ends[2];
  if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) s_fail(errno, "socketpair");
  m_descriptor.reset(ends[0]);
  const Tool::Descriptor other(ends[1]);
  const int error = s_spawn(m_pid, words, other.get());
  if (error != 0) s_fail(error, words.front());
}

HelperProcess::~HelperProcess() {
  if (!m_hasEnded) kill(m_pid, SIGKILL);
  end();
}

int HelperProcess::end() {
  for (const bool isKilled : {false, true}) {
    if (isKilled && !m_hasEnded) kill(m_pid, SIGKILL);
    const auto limit = std::chrono::steady_clock::now() + s_endPatience;
    while (!hasEnded() && std::chrono::steady_clock::now() < limit) {
      std::this_thread::sleep_for(s_endStep);
    }
  }
  return m_status;
}

bool HelperProcess::hasEnded() {
  if (!m_hasEnded) m_hasEnded = waitpid(m_pid, &m_status, WNOHANG) == m_pid;
  return m_hasEnded;
}

}  // namespace Tessel::Serve
