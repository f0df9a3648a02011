#include "CliProgram.h"

#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <utility>

#include <gtest/gtest.h>

namespace CliTest {
namespace {

constexpr int patienceMs = 60000;

std::vector<char*> argumentVector(const std::string& program, const Arguments& arguments) {
  std::vector<char*> result{const_cast<char*>(program.c_str())};
  for (const std::string& argument : arguments) {
    result.push_back(const_cast<char*>(argument.c_str()));
  }
  result.push_back(nullptr);
  return result;
}

[[noreturn]] void execute(const std::vector<char*>& arguments) {
  ::execv(arguments.front(), arguments.data());
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

Process::Process(const std::string& program, const Arguments& arguments) {
  std::signal(SIGPIPE, SIG_IGN);
  std::array<std::array<int, 2>, 3> pipes{};
  for (auto& ends : pipes) {
    if (::pipe2(ends.data(), O_CLOEXEC) != 0) {
      std::abort();
    }
  }
  const std::vector<char*> vector = argumentVector(program, arguments);
  id_ = ::fork();
  if (id_ == 0) {
    ::dup2(pipes[0][0], STDIN_FILENO);
    ::dup2(pipes[1][1], STDOUT_FILENO);
    ::dup2(pipes[2][1], STDERR_FILENO);
    std::signal(SIGPIPE, SIG_DFL);
    execute(vector);
  }
  ::close(pipes[0][0]);
  ::close(pipes[1][1]);
  ::close(pipes[2][1]);
  input_ = pipes[0][1];
  output_ = pipes[1][0];
  errors_ = pipes[2][0];
}

Process::Process(OnTerminal, const std::string& program, const Arguments& arguments) {
  const std::vector<char*> vector = argumentVector(program, arguments);
  id_ = ::forkpty(&output_, nullptr, nullptr, nullptr);
  if (id_ == 0) {
    execute(vector);
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

void Process::kill(int signal) const { ::kill(id_, signal); }

Finished Process::finish(std::string_view input) {
  Finished result;
  result.out = std::move(pending_);
  while (output_ >= 0 || errors_ >= 0) {
    if (input.empty()) {
      closeOnce(input_);
    }
    std::array<pollfd, 3> waiting{
        {{output_, POLLIN, 0}, {errors_, POLLIN, 0}, {input_, POLLOUT, 0}}};
    if (::poll(waiting.data(), waiting.size(), patienceMs) <= 0) {
      ADD_FAILURE() << "the program does not end";
      break;
    }
    if ((waiting[2].revents & (POLLOUT | POLLERR)) != 0) {
      const ssize_t count =
          ::write(input_, input.data(), std::min<std::size_t>(input.size(), 4096));
      input.remove_prefix(count < 0 ? input.size() : static_cast<std::size_t>(count));
    }
    if (waiting[0].revents != 0) {
      readSome(output_, result.out);
    }
    if (waiting[1].revents != 0) {
      readSome(errors_, result.errors);
    }
  }
  result.status = wait();
  return result;
}

int Process::wait() {
  int status = 0;
  while (::waitpid(id_, &status, 0) < 0 && errno == EINTR) {
  }
  id_ = -1;
  return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}

Finished sim(std::string_view input, const Arguments& arguments) {
  return Process{OSTRA_SIM_PROGRAM, arguments}.finish(input);
}

Finished show(const Arguments& arguments) {
  return Process{OSTRA_SHOW_PROGRAM, arguments}.finish();
}

std::vector<std::string> simJsonLines(std::string_view input, int status, Arguments arguments) {
  arguments.insert(arguments.begin(), {"--json", "--clock", "steps"});
  const Finished finished = sim(input, arguments);
  EXPECT_EQ(finished.status, status) << finished.errors << finished.out;
  return linesOf(finished.out);
}

std::vector<Json> simJson(std::string_view input, int status, Arguments arguments) {
  std::vector<Json> objects;
  for (const std::string& line : simJsonLines(input, status, std::move(arguments))) {
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

std::string contentOf(const std::string& path) {
  std::ifstream file{path};
  return {std::istreambuf_iterator<char>{file}, {}};
}

TemporaryFile::TemporaryFile(std::string_view content)
    : path_{testing::TempDir() + "ostra-cli-XXXXXX"} {
  ::close(::mkstemp(path_.data()));
  std::ofstream{path_} << content;
}

TemporaryFile::~TemporaryFile() { ::unlink(path_.c_str()); }

}  // namespace CliTest
