// Programs that are measured as processes of their own.
#include "Processes.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <memory>
#include <sstream>
#include <stdexcept>

#include "Rounds.h"

namespace Tessel::Bench {

namespace {

// Where exports go; in memory where the system has such a directory, so that no disk is measured.
std::string s_exportFile() {
  const std::filesystem::path memory = "/dev/shm";
  const std::filesystem::path directory =
      std::filesystem::is_directory(memory) ? memory : std::filesystem::temp_directory_path();
  return directory / ("tsl-bench-export-" + std::to_string(getpid()));
}

}  // namespace

pid_t spawn(std::vector<std::string> words, const std::string& input, const std::string& output) {
  std::vector<char*> arguments;
  arguments.reserve(words.size() + 1);
  for (std::string& word : words) arguments.push_back(word.data());
  arguments.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 0, input.c_str(), O_RDONLY, 0);
  posix_spawn_file_actions_addopen(&actions, 1, output.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
  posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
  pid_t child = 0;
  const int failed =
      posix_spawnp(&child, arguments[0], &actions, nullptr, arguments.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  if (failed != 0) throw std::runtime_error("cannot run " + words[0]);
  return child;
}

long waitFor(pid_t child, const std::string& what) {
  int status = 0;
  rusage usage{};
  if (wait4(child, &status, 0, &usage) != child || status != 0) {
    throw std::runtime_error("failed: " + what);
  }
  return usage.ru_maxrss;
}

std::filesystem::path toolPath() {
  return std::filesystem::read_symlink("/proc/self/exe").parent_path() / "tsl-address-map";
}

long runTool(const std::string& words) {
  std::vector<std::string> texts{toolPath()};
  std::istringstream stream(words);
  for (std::string word; stream >> word;) texts.push_back(word == "FILE" ? s_exportFile() : word);
  const long peak = waitFor(spawn(texts, "/dev/null", "/dev/null"), "tsl-address-map " + words);
  std::filesystem::remove(s_exportFile());
  return peak;
}

double peakOf(const std::string& work) {
  const std::string program = std::filesystem::read_symlink("/proc/self/exe").string();
  const std::unique_ptr<FILE, decltype(&pclose)> output(
      popen(("'" + program + "' '--peak=" + work + "'").c_str(), "r"), &pclose);
  double kilobytes = 0;
  // Any number will do.
  if (!output || std::fscanf(output.get(), "%lf", &kilobytes) != 1) {  // NOLINT(cert-err34-c)
    throw std::runtime_error("the measured program failed");
  }
  return kilobytes / 1024;
}

Process::Process(pid_t id) : m_id(id) {
  watch(id);
}

Process::~Process() {
  unwatch(m_id);
  kill(m_id, SIGTERM);
  waitpid(m_id, nullptr, 0);
}

}  // namespace Tessel::Bench
