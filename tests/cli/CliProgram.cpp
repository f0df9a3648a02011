#include "CliProgram.h"

#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

namespace CliTest {
namespace {

constexpr int patienceMs = 60000;

[[noreturn]] void execute(const std::string& program, const Arguments& arguments) {
  std::vector<char*> vector{const_cast<char*>(program.c_str())};
  for (const std::string& argument : arguments) {
    vector.push_back(const_cast<char*>(argument.c_str()));
  }
  vector.push_back(nullptr);
  ::execv(vector.front(), vector.data());
  ::_exit(127);
}

void closeOnce(int& descriptor) {
  if (descriptor >= 0) {
    ::close(std::exchange(descriptor, -1));
  }
}

// Reads what is there; closes the descriptor at the end of it.
void readSome(int& descriptor, std::string& to) {
  std::array<char, 65536> block;
  const ssize_t count = ::read(descriptor, block.data(), block.size());
  if (count > 0) {
    to.append(block.data(), static_cast<std::size_t>(count));
  } else if (count == 0 || errno != EINTR) {
    closeOnce(descriptor);
  }
}

}  // namespace

Process::Process(const std::string& program, const Arguments& arguments,
                 const std::string& inputFile)
    : errors_{::memfd_create("errors", MFD_CLOEXEC)} {
  std::signal(SIGPIPE, SIG_IGN);
  std::array<int, 2> in{};
  std::array<int, 2> out{};
  if (::pipe2(in.data(), O_CLOEXEC) != 0 || ::pipe2(out.data(), O_CLOEXEC) != 0) {
    std::abort();
  }
  id_ = ::fork();
  if (id_ == 0) {
    ::dup2(inputFile.empty() ? in[0] : ::open(inputFile.c_str(), O_RDONLY | O_CLOEXEC),
           STDIN_FILENO);
    ::dup2(out[1], STDOUT_FILENO);
    ::dup2(errors_, STDERR_FILENO);
    std::signal(SIGPIPE, SIG_DFL);
    execute(program, arguments);
  }
  ::close(in[0]);
  ::close(out[1]);
  input_ = in[1];
  output_ = out[0];
}

Process::Process(OnTerminal, const std::string& program, const Arguments& arguments) {
  id_ = ::forkpty(&output_, nullptr, nullptr, nullptr);
  if (id_ == 0) {
    execute(program, arguments);
  }
  input_ = ::fcntl(output_, F_DUPFD_CLOEXEC, 0);
}

Process::~Process() {
  if (id_ > 0) {
    ::kill(id_, SIGKILL);
    wait();
  }
  closeOnce(input_);
  closeOnce(output_);
  closeOnce(errors_);
}

void Process::write(std::string_view text) {
  while (!text.empty()) {
    const ssize_t count = ::write(input_, text.data(), text.size());
    ASSERT_GT(count, 0);
    text.remove_prefix(static_cast<std::size_t>(count));
  }
}

void Process::closeInput() { closeOnce(input_); }

void Process::closeOutput() { closeOnce(output_); }

std::string Process::readUntil(std::string_view text) {
  while (pending_.find(text) == std::string::npos) {
    pollfd waiting{output_, POLLIN, 0};
    if (output_ < 0 || ::poll(&waiting, 1, patienceMs) <= 0) {
      ADD_FAILURE() << "'" << text << "' did not come, but: " << pending_;
      break;
    }
    readSome(output_, pending_);
  }
  const std::size_t found = pending_.find(text);
  const std::size_t length = found == std::string::npos ? pending_.size() : found + text.size();
  std::string result = pending_.substr(0, length);
  pending_.erase(0, length);
  return result;
}

std::string Process::play(std::string_view lines) {
  write(std::string{lines} + "echo played\n");
  return readUntil("played");
}

std::string Process::readLines() {
  while (output_ >= 0 && !pending_.ends_with('\n')) {
    readSome(output_, pending_);
  }
  return std::exchange(pending_, {});
}

void Process::kill(int signal) const { ::kill(id_, signal); }

Finished Process::finish(std::string_view input) {
  write(input);
  closeOnce(input_);
  while (output_ >= 0) {
    readSome(output_, pending_);
  }
  const int status = wait();
  return {.status = status,
          .out = std::move(pending_),
          .errors = contentOf("/proc/self/fd/" + std::to_string(errors_))};
}

Finished Process::finishBy(int signal) {
  kill(signal);
  return finish();
}

int Process::wait() {
  int status = 0;
  while (::waitpid(id_, &status, 0) < 0 && errno == EINTR) {
  }
  id_ = -1;
  return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}

Finished sim(std::string_view input, const Arguments& arguments) {
  const TemporaryFile file{input};
  return Process{OSTRA_SIM_PROGRAM, arguments, file.path()}.finish();
}

Finished show(const Arguments& arguments) {
  return Process{OSTRA_SHOW_PROGRAM, arguments}.finish();
}

std::vector<Json> simJson(std::string_view input, int status, Arguments arguments) {
  arguments.insert(arguments.begin(), {"--json", "--clock", "steps"});
  const Finished finished = sim(input, arguments);
  EXPECT_EQ(finished.status, status) << finished.errors << finished.out;
  std::vector<Json> objects;
  for (const std::string& line : linesOf(finished.out)) {
    objects.push_back(Json::parse(line, nullptr, false));
    EXPECT_TRUE(objects.back().is_object()) << line;
  }
  return objects;
}

std::vector<std::string> linesOf(std::string_view text) {
  std::vector<std::string> lines;
  while (!text.empty()) {
    const std::size_t end = text.find('\n');
    lines.emplace_back(text.substr(0, end));
    text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
  }
  return lines;
}

std::vector<std::string> segmentsOf(const std::string& name) {
  std::vector<std::string> paths;
  for (const auto& entry : std::filesystem::directory_iterator{"/dev/shm"}) {
    if (entry.path().filename().string().find(name) != std::string::npos) {
      paths.push_back(entry.path());
    }
  }
  return paths;
}

std::string contentOf(const std::string& path) {
  std::ifstream file{path};
  return {std::istreambuf_iterator<char>{file}, {}};
}

SharedSwitch::~SharedSwitch() { (void)sim("", {"--shm", name_, "--discard"}); }

std::unique_ptr<Process> SharedSwitch::start(Arguments arguments) const {
  arguments.insert(arguments.end(), {"--shm", name_});
  return std::make_unique<Process>(OSTRA_SIM_PROGRAM, arguments);
}

TemporaryFile::TemporaryFile(std::string_view content)
    : path_{testing::TempDir() + "ostra-cli-XXXXXX"} {
  ::close(::mkstemp(path_.data()));
  std::ofstream{path_} << content;
}

TemporaryFile::~TemporaryFile() { ::unlink(path_.c_str()); }

}  // namespace CliTest
