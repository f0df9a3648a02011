#include "bench/p4rt/ServerProcess.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace P4rtBench {
namespace {

// The field of /proc/ID/stat of that number, counted from 1.
double statField(pid_t id, int number) {
  constexpr int firstBehindName = 3;
  std::ifstream file{"/proc/" + std::to_string(id) + "/stat"};
  std::string line;
  std::getline(file, line);
  std::istringstream fields{line.substr(line.rfind(')') + 1)};
  std::string field;
  for (int at = firstBehindName; at <= number; ++at) {
    fields >> field;
  }
  return std::stod(field);
}

}  // namespace

ServerProcess::ServerProcess(const std::string& program, const std::string& config) {
  int ends[2];
  if (::pipe2(ends, O_CLOEXEC) != 0) {
    throw std::runtime_error{"no pipe"};
  }
  std::array<std::string, 7> words{program,    "--listen", "127.0.0.1:0", "--json",
                                   "--config", config,     "--no-console"};
  std::array<char*, words.size() + 1> arguments{};
  for (std::size_t at = 0; at < words.size(); ++at) {
    arguments[at] = words[at].data();
  }
  posix_spawn_file_actions_t actions;
  ::posix_spawn_file_actions_init(&actions);
  ::posix_spawn_file_actions_adddup2(&actions, ends[1], STDOUT_FILENO);
  const int error =
      ::posix_spawn(&id_, program.c_str(), &actions, nullptr, arguments.data(), environ);
  ::posix_spawn_file_actions_destroy(&actions);
  ::close(ends[1]);
  address_ = error == 0 ? readAddress(ends[0]) : std::string{};
  ::close(ends[0]);
  if (address_.empty()) {
    throw std::runtime_error{program + " did not come up"};
  }
}

ServerProcess::~ServerProcess() {
  ::kill(id_, SIGTERM);
  ::waitpid(id_, nullptr, 0);
}

// The line that says where it listens is its first one.
std::string ServerProcess::readAddress(int output) const {
  constexpr std::string_view mark = R"("address":")";
  std::string line;
  for (char character = 0; ::read(output, &character, 1) == 1 && character != '\n';) {
    line += character;
  }
  const std::size_t begin = line.find(mark);
  if (begin == std::string::npos) {
    ::waitpid(id_, nullptr, 0);
    return {};
  }
  const std::size_t end = line.find('"', begin + mark.size());
  return line.substr(begin + mark.size(), end - begin - mark.size());
}

double ServerProcess::processorTime() const {
  constexpr int userTime = 14;
  constexpr int systemTime = 15;
  return (statField(id_, userTime) + statField(id_, systemTime)) /
         static_cast<double>(::sysconf(_SC_CLK_TCK));
}

double ServerProcess::memory() const {
  constexpr int residentPages = 24;
  return statField(id_, residentPages) * static_cast<double>(::sysconf(_SC_PAGESIZE));
}

}  // namespace P4rtBench
