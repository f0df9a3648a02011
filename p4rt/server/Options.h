// The command line of ostra-p4rt.
#pragma once

#include <chrono>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "cli/OptionWords.h"
#include "p4rt/server/ListenAddress.h"
#include "p4rt/server/RuntimeService.h"
#include "platform/Korm/Segment.h"
#include "sim/SharedMemory.h"

namespace P4rt {

struct Options {
  static constexpr std::string_view defaultAddress = "127.0.0.1:9559";

  ListenAddress address{defaultAddress};
  RuntimeService::Options service{};
  std::chrono::milliseconds writeTimeout{5000};
  // The names of files, empty for none.
  std::string config;
  std::string p4info;
  std::string tlsCertificate;
  std::string tlsKey;
  std::string clientRoots;
  std::string shm;  // the name of the shared memory, empty for none
  Sim::Leftover leftover = Sim::Leftover::refuse_;
  Korm::SegmentRights rights;
  std::optional<bool> console;  // nothing: if standard input is a terminal
  bool insecure = false;
  bool json = false;
  bool help = false;
  bool version = false;
};

// `arguments` does not include the program's name.
// Throws: Cli::UsageError.
[[nodiscard]] Options parseOptions(std::span<const char* const> arguments);

// The text that --help prints.
[[nodiscard]] std::string_view usage() noexcept;

}  // namespace P4rt
