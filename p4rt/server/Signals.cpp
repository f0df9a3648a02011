#include "p4rt/server/Signals.h"

#include <csignal>
#include <utility>

namespace P4rt {
namespace {

// Sent by the destructor to end the watching thread.
constexpr int closing = SIGUSR1;

}  // namespace

Signals::Signals() : set_{} {
  std::signal(SIGPIPE, SIG_IGN);
  ::sigemptyset(&set_);
  for (const int number : {SIGTERM, SIGINT, SIGHUP, closing}) {
    ::sigaddset(&set_, number);
  }
  ::pthread_sigmask(SIG_BLOCK, &set_, nullptr);
}

Signals::~Signals() {
  if (watcher_.joinable()) {
    ::pthread_kill(watcher_.native_handle(), closing);
    watcher_.join();
  }
}

void Signals::watch(std::function<void()> ended) {
  watcher_ = std::thread{[this, ended = std::move(ended)] {
    int number = 0;
    if (::sigwait(&set_, &number) != 0 || number == closing) {
      return;
    }
    ended();
    if (::sigwait(&set_, &number) == 0 && number != closing) {
      ::signal(number, SIG_DFL);
      sigset_t one;
      ::sigemptyset(&one);
      ::sigaddset(&one, number);
      ::pthread_sigmask(SIG_UNBLOCK, &one, nullptr);
      ::raise(number);
    }
  }};
}

}  // namespace P4rt
