// Programs that are measured as processes of their own.
#ifndef TSL_BENCH_PROCESSES_H
#define TSL_BENCH_PROCESSES_H

#include <sys/types.h>

#include <filesystem>
#include <string>
#include <vector>

namespace Tessel::Bench {

// Starts `words` with the files `input` and `output`; what it reports is dropped. Throws
// std::runtime_error when it cannot be started.
pid_t spawn(std::vector<std::string> words, const std::string& input, const std::string& output);

// Waits until `child` has ended and returns the peak of its resident memory in kilobytes. Throws
// std::runtime_error with `what` when it did not end with 0.
long waitFor(pid_t child, const std::string& what);

// The tool, which is built into the same directory as this program.
std::filesystem::path toolPath();

// Runs the tool with `words`, which are separated by blanks; FILE is replaced by a file that
// exports may write. Returns the peak of its resident memory in kilobytes. The peak of a child
// starts at the size of its parent, so the parent must be small for the number to mean anything.
long runTool(const std::string& words);

// Peak of resident memory, in MB, of a new, small process of this program, with "--peak=" and
// `work`.
double peakOf(const std::string& work);

// A process that ends with the object. Its processor time counts for Clock::Everyone.
class Process {
 public:
  explicit Process(pid_t id);
  ~Process();
  Process(const Process&) = delete;
  Process& operator=(const Process&) = delete;

 private:
  pid_t m_id;
};

}  // namespace Tessel::Bench

#endif
