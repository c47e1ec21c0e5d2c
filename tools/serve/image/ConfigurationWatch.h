// Keeps the image of the configuration up to date. Another process reads the files: damaged ones
// can kill who does.
#ifndef TSL_TOOLS_SERVE_IMAGE_CONFIGURATIONWATCH_H
#define TSL_TOOLS_SERVE_IMAGE_CONFIGURATIONWATCH_H

#include <sys/types.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "base/Guarded.h"
#include "serve/base/Log.h"
#include "serve/base/Settings.h"
#include "serve/image/ConfigurationImage.h"
#include "serve/image/Frame.h"
#include "serve/image/HelperProcess.h"

namespace Tessel::Serve {

// Asks the helper several times per `refresh` of the settings whether the configuration that
// TSL_CMF_PATH names has changed. A helper that dies, is silent for too long or sends what is no
// answer is replaced by a new one, after a pause that grows from 100 ms to 10 s. Any thread may
// call `reload`, `hasLooked` and `helper`.
class ConfigurationWatch {
 public:
  // The helper: a program that calls helpWithConfiguration(0).
  struct Helper {
    std::vector<std::string> command;
    std::chrono::milliseconds patience = 5s;  // Until silence is too long.
  };

  // Begins to watch, on a thread of its own. All references must outlive the object.
  ConfigurationWatch(const Settings& settings, Configuration& configuration, Log& log,
                     Helper helper);
  // Ends the helper. Takes two seconds at most, whatever the files do.
  ~ConfigurationWatch();
  ConfigurationWatch(const ConfigurationWatch&) = delete;
  ConfigurationWatch& operator=(const ConfigurationWatch&) = delete;

  // Reads the configuration again, with a new helper.
  void reload();
  // True when the configuration was read once, or could not be.
  [[nodiscard]] bool hasLooked() const noexcept { return m_hasLooked; }
  // The process id of the helper; 0 while there is none.
  [[nodiscard]] pid_t helper() const noexcept { return m_pid; }

 private:
  struct State {
    bool isStopping = false;
    bool isReloading = false;
  };

  void run();
  bool isStopping();
  // The pause until the next look.
  std::chrono::milliseconds look();
  void ask(Clock::time_point start);
  // The helper's answer. Throws std::runtime_error when it will not come.
  Frame answer();
  void receive(Clock::time_point limit);
  void take(const Frame& frame, Clock::time_point start);
  void available();
  void fail(const std::string& why);
  std::chrono::milliseconds endHelper(const std::string& why);

  const Settings& m_settings;
  Configuration& m_configuration;
  Log& m_log;
  const Helper m_command;
  const std::string m_directory;
  const std::string m_name;  // The configuration, for messages.

  Guarded<State> m_state;
  std::condition_variable_any m_wake;
  std::atomic<pid_t> m_pid = 0;
  std::atomic<bool> m_hasLooked = false;

  // Of the thread alone.
  std::unique_ptr<HelperProcess> m_helper;
  FrameReader m_frames;
  bool m_isKnown = false;  // By a copy of this helper.
  std::string m_failure;   // What was reported; empty while all is well.
  std::chrono::milliseconds m_pause;
  std::thread m_thread;
};

}  // namespace Tessel::Serve

#endif
