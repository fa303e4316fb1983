#pragma once

#include <cstddef>
#include <filesystem>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

// Times, processes and the table of figures.
namespace marbleway::bench {

/// The median of some numbers, and how far they spread.
struct Spread {
  double median = 0, least = 0, most = 0;
};
Spread spreadOf(std::vector<double> numbers);

/// What is timed, and what is done before each time, unmeasured.
struct Operation {
  std::function<void()> run;
  std::function<void()> prepare = [] {};
};

/// The microseconds of one run.
double timed(const Operation& operation);

/// Microseconds an operation of ours and of the bare program.
struct Comparison {
  Spread ours, bare;
};

/// Times both in alternating blocks. The first operations of a block (a tenth, one at least) do not
/// count, because they wait for what the other side left in the file system's journal. The numbers
/// are the medians of the blocks.
Comparison compare(int blocks, int operations, const Operation& ours, const Operation& bare);
/// The same for one operation alone.
Spread measure(int blocks, int operations, const Operation& operation);

/// One line of the table. `met` is `none` in a line without a goal.
struct Figure {
  std::string name;
  std::string goal = {};
  std::string ours, bare = {}, ratio = {};
  enum class Met { none, yes, no } met = Met::none;
  std::string note = {};
};
void printHead();
void print(const Figure& figure);
/// A line whose goal is a ratio of both medians, with the spread of both as its note.
void print(const std::string& name, double mostRatio, const Comparison& comparison);

Figure::Met metIf(bool isMet);
/// "0.42", "12.5", "131": three significant digits, and the unit.
std::string number(double value, std::string_view unit = "");
/// Microseconds as "131 us" or "131 ms".
std::string duration(double microseconds);

/// Runs `work` in a child of a fork, where the library has not been used, and returns its numbers.
/// Throws when the child fails. Call while no other thread runs.
std::vector<double> inChild(const std::function<std::vector<double>()>& work);
/// The same for work that prints lines of the table.
void inOwnProcess(const std::function<void()>& work);

/// Bytes resident now, and at most since the process began.
double residentBytes();
double mostResidentBytes();
/// The number of threads, and the voluntary context switches of all but the calling one.
struct Threads {
  double count = 0, switches = 0;
};
Threads threads();

/// The number of allocations of the program so far, by any form of new.
std::size_t allocations();

/// A new directory under another one. The destructor removes it.
class WorkDirectory {
 public:
  explicit WorkDirectory(const std::filesystem::path& under);
  WorkDirectory(const WorkDirectory&) = delete;
  WorkDirectory& operator=(const WorkDirectory&) = delete;
  ~WorkDirectory();

  const std::filesystem::path& path() const { return path_; }

 private:
  std::filesystem::path path_;
};

}  // namespace marbleway::bench
