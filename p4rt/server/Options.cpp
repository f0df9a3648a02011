#include "p4rt/server/Options.h"

#include <array>
#include <stdexcept>

#include "cli/RightsOptions.h"
#include "cli/language/Values.h"
#include "sim/SharedNames.h"

namespace P4rt {
namespace {

using Word = Cli::OptionWord<Options>;

constexpr std::size_t longestTimeoutMs = 3'600'000;

void addressIs(Options& options, std::string_view text) {
  try {
    options.address = ListenAddress{text};
  } catch (const std::invalid_argument& fault) {
    throw Cli::CommandError{"read --listen " + Cli::quoted(text) + ", " + fault.what()};
  }
}

// The file itself is read later.
template <std::string Options::*file>
void fileIs(Options& options, std::string_view name) {
  if (name.empty()) {
    throw Cli::CommandError{"read an empty word, expected the name of a file"};
  }
  options.*file = name;
}

void leftoverIs(Options& options, Sim::Leftover leftover) {
  if (options.leftover != Sim::Leftover::refuse_ && options.leftover != leftover) {
    throw Cli::CommandError{"read both --resume and --discard, expected one of them"};
  }
  options.leftover = leftover;
}

template <bool Options::*flag>
void flagIs(Options& options, std::string_view /*argument*/) {
  options.*flag = true;
}

constexpr std::array words{
    Word{"--listen", "HOST:PORT", addressIs},
    Word{"--device-id", "N",
         [](Options& options, std::string_view text) {
           options.service.device = Cli::parseNumber<std::uint64_t>(text, "--device-id");
         }},
    Word{"--config", "FILE", fileIs<&Options::config>},
    Word{"--p4info", "FILE", fileIs<&Options::p4info>},
    Word{"--write-timeout", "MS",
         [](Options& options, std::string_view text) {
           options.writeTimeout = std::chrono::milliseconds{
               Cli::parseNumber<std::uint32_t>(text, "--write-timeout", longestTimeoutMs)};
         }},
    Word{"--max-error-details", "BYTES",
         [](Options& options, std::string_view text) {
           options.service.mostErrorDetails =
               Cli::parseNumber<std::uint32_t>(text, "--max-error-details");
         }},
    Word{"--tls-cert", "FILE", fileIs<&Options::tlsCertificate>},
    Word{"--tls-key", "FILE", fileIs<&Options::tlsKey>},
    Word{"--client-ca", "FILE", fileIs<&Options::clientRoots>},
    Word{"--insecure", "", flagIs<&Options::insecure>},
    Word{"--console", "", [](Options& options, std::string_view) { options.console = true; }},
    Word{"--no-console", "", [](Options& options, std::string_view) { options.console = false; }},
    Word{"--json", "", flagIs<&Options::json>},
    Word{"--shm", "NAME",
         [](Options& options, std::string_view name) {
           if (const std::string fault = Sim::sharedNameFault(name); !fault.empty()) {
             throw Cli::CommandError{"read --shm " + Cli::quoted(name) + ", " + fault};
           }
           options.shm = name;
         }},
    Word{"--resume", "",
         [](Options& options, std::string_view) { leftoverIs(options, Sim::Leftover::resume_); }},
    Word{"--discard", "",
         [](Options& options, std::string_view) { leftoverIs(options, Sim::Leftover::discard_); }},
    Cli::groupWord<Options>,
    Cli::trustWord<Options>,
    Word{"--help", "", flagIs<&Options::help>},
    Word{"--version", "", flagIs<&Options::version>},
};

constexpr std::string_view usageText =
    R"(Usage: ostra-p4rt [options]

The embedded switch with a P4Runtime 1.4.1 server. It runs until SIGTERM, SIGINT, SIGHUP or the
console's 'quit'. Then it finishes the Write in progress and exits.

  --listen HOST:PORT     where to listen; default 127.0.0.1:9559, port 0 means any free port
  --device-id N          the device id that controllers must use; default 1
  --config FILE          first play the commands of the FILE: ports, encapsulations, hw ...
  --p4info FILE          a P4Info in text format; it is checked, and its name is printed for
                         controllers. It is not set as the pipeline: a controller does that
  --write-timeout MS     how long the hardware may take to answer a Write; default 5000
  --max-error-details BYTES
                         the maximum size of the details of a failed RPC; default 7900, because
                         clients accept 8 KiB of metadata by default
  --tls-cert FILE, --tls-key FILE
                         serve over TLS, with this certificate and key (PEM)
  --client-ca FILE       accept only clients with a certificate that is signed by one in the FILE
                         (PEM)
  --insecure             listen on any address without TLS: accept everybody who reaches the port
  --console, --no-console
                         whether to read commands of ostra-sim from standard input; by default if
                         it is a terminal
  --json                 print JSON, one object per line, instead of text
  --shm NAME             keep the tables, all that controllers have written and the trace ring in
                         named shared memory, which 'ostra-show NAME' can read. A server that is
                         killed leaves it there
  --resume               resume what a killed server has left under the NAME
  --discard              remove what a killed server has left under the NAME
  --shm-group GROUP      let the GROUP, a name or a number, read the shared memory; by default only
                         its user can
  --trust-owner          resume or remove even what belongs to another user
  --help                 print this
  --version              print the version

Exit status: 0 after a shutdown, 2 for invalid options or files, 1 for other failures.
)";

// Checks that the options may be combined.
// Throws: Cli::UsageError.
void check(const Options& options) {
  if (options.tlsCertificate.empty() != options.tlsKey.empty()) {
    throw Cli::UsageError{"read one of --tls-cert and --tls-key, expected both"};
  }
  if (!options.clientRoots.empty() && options.tlsKey.empty()) {
    throw Cli::UsageError{"read --client-ca, expected --tls-cert and --tls-key with it"};
  }
  if (options.insecure && !options.tlsKey.empty()) {
    throw Cli::UsageError{"read --insecure and --tls-key, expected one of them"};
  }
  if (options.leftover != Sim::Leftover::refuse_ && options.shm.empty()) {
    throw Cli::UsageError{"read --resume or --discard, expected --shm NAME with it"};
  }
  if ((options.rights.group || options.rights.trustOtherUsers) && options.shm.empty()) {
    throw Cli::UsageError{"read --shm-group or --trust-owner, expected --shm NAME with it"};
  }
  if (!options.address.loopback() && options.tlsKey.empty() && !options.insecure) {
    throw Cli::UsageError{"--listen " + options.address.text() +
                          " can be reached from other machines: expected --tls-cert and --tls-key, "
                          "or --insecure to let anybody in"};
  }
}

}  // namespace

Options parseOptions(std::span<const char* const> arguments) {
  Options options;
  while (!arguments.empty()) {
    arguments = arguments.subspan(Cli::applyOption(arguments, words, "an option", options));
  }
  if (!options.help && !options.version) {
    check(options);
  }
  return options;
}

std::string_view usage() noexcept { return usageText; }

}  // namespace P4rt
