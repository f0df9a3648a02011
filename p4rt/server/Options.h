// The command line of ostra-p4rt.
//
// Thread and process rule: free functions without state.
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
  std::string config;  // the names of files; empty: none
  std::string p4info;
  std::string tlsCertificate;
  std::string tlsKey;
  std::string clientRoots;
  std::string shm;  // empty: no named shared memory
  Sim::Leftover leftover = Sim::Leftover::refuse_;
  Korm::SegmentRights rights;
  std::optional<bool> console;  // nothing: where standard input is a terminal
  bool insecure = false;
  bool json = false;
  bool help = false;
  bool version = false;
};

// `arguments` are those behind the program's name. Throws Cli::UsageError.
[[nodiscard]] Options parseOptions(std::span<const char* const> arguments);

// What --help prints.
[[nodiscard]] std::string_view usage() noexcept;

}  // namespace P4rt
