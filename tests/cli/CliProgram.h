// Runs ostra-sim and ostra-show as their users do: with arguments, an input, and what comes of it.
#pragma once

#include <sys/types.h>

#include "tests/Testing.h"
#include <nlohmann/json.hpp>

namespace CliTest {

using namespace TestSupport;

using Arguments = std::vector<std::string>;
using Json = nlohmann::ordered_json;

struct Finished {
  int status = -1;  // the exit status, or minus the signal that ended it
  std::string out;
  std::string errors;
};

// A program that is running, with pipes for its input and its output.
class Process {
 public:
  // `program` is a path. With an `inputFile` it reads that.
  Process(const std::string& program, const Arguments& arguments,
          const std::string& inputFile = {});
  // A program with a terminal of its own for all three streams.
  struct OnTerminal {};
  Process(OnTerminal, const std::string& program, const Arguments& arguments);
  ~Process();
  Process(const Process&) = delete;
  Process& operator=(const Process&) = delete;

  void write(std::string_view text);
  void closeInput();
  void closeOutput();
  // Reads from the output up to the next `text`, and returns all up to its end. Fails the test when
  // it does not come.
  std::string readUntil(std::string_view text);
  // Writes these lines, and returns what is said until they are done.
  std::string play(std::string_view lines);
  // All that it says up to the end of a line or its own end; empty when it ends without a word.
  std::string readLines();
  void kill(int signal) const;
  // Writes the input, which is short, closes it, and reads all until the program ends.
  Finished finish(std::string_view input = {});

  // The same when a signal has ended it.
  Finished finishBy(int signal);

  [[nodiscard]] pid_t id() const noexcept { return id_; }

 private:
  int wait();

  pid_t id_ = -1;
  int input_ = -1;
  int output_ = -1;
  int errors_ = -1;
  std::string pending_;
};

[[nodiscard]] Finished sim(std::string_view input, const Arguments& arguments = {});
[[nodiscard]] Finished show(const Arguments& arguments);
// The lines of `ostra-sim --json`, which must have ended with `status`.
[[nodiscard]] std::vector<Json> simJson(std::string_view input, int status = 0,
                                        Arguments arguments = {});

[[nodiscard]] std::vector<std::string> linesOf(std::string_view text);

// The paths of the shared memory whose name has `name` in it.
[[nodiscard]] std::vector<std::string> segmentsOf(const std::string& name);

[[nodiscard]] std::string contentOf(const std::string& path);

// Switches whose tables are in shared memory of one name, which goes with the test.
class SharedSwitch : public testing::Test {
 protected:
  ~SharedSwitch() override;
  // An ostra-sim of that name.
  [[nodiscard]] std::unique_ptr<Process> start(Arguments arguments = {}) const;

  const std::string name_ = uniqueName("ostra-cli-test");
};

// A file that goes with the test.
class TemporaryFile {
 public:
  explicit TemporaryFile(std::string_view content);
  ~TemporaryFile();
  TemporaryFile(const TemporaryFile&) = delete;
  TemporaryFile& operator=(const TemporaryFile&) = delete;
  [[nodiscard]] const std::string& path() const noexcept { return path_; }

 private:
  std::string path_;
};

}  // namespace CliTest
