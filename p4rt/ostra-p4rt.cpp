// ostra-p4rt: an embedded switch behind a P4Runtime server.

#include <grpc/support/log.h>
#include <unistd.h>

#include <cstdlib>
#include <exception>
#include <filesystem>
#include <memory>
#include <new>
#include <optional>
#include <string>

#include "cli/output/Json.h"
#include "cli/output/Output.h"
#include "cli/output/Printer.h"
#include "p4rt/Engine.h"
#include "p4rt/core/Loop.h"
#include "p4rt/server/Console.h"
#include "p4rt/server/Files.h"
#include "p4rt/server/Options.h"
#include "p4rt/server/Server.h"
#include "p4rt/server/Signals.h"
#include "sim/HwAgent.h"
#include "sim/Service.h"
#include "sim/SharedMemory.h"

namespace {

enum Status { success = 0, failure = 1, badInput = 2 };

// An invalid option or file.
class BadInput : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// The program reports its errors itself. The log of gRPC is for debugging only.
void silenceGrpc() {
  if (std::getenv("GRPC_VERBOSITY") == nullptr) {
    ::gpr_set_log_function([](gpr_log_func_args* /*message*/) {});
  }
}

class Program {
 public:
  Program(const P4rt::Options& options, P4rt::Signals& signals, Cli::Output& out,
          Cli::Output& errors)
      : options_{options}, signals_{signals}, out_{out}, printer_{makePrinter(errors)} {}

  Status run() {
    std::optional<Sim::SharedMemory> sharedMemory;
    if (!options_.shm.empty()) {
      Korm::segmentRightsIs(options_.rights);
      sharedMemory.emplace(options_.shm, options_.leftover);
    }
    const LeftoverGuard guard{*this,
                              sharedMemory && sharedMemory->resuming() ? &*sharedMemory : nullptr};
    Sim::Service service{sharedMemory ? &*sharedMemory : nullptr};
    Sim::HwAgent agent{service.hwConfig(), service.hwStatusDir(), service.hwUnitDir()};
    P4rt::Loop loop;
    P4rt::Engine engine{
        service, loop, {.writeTimeout = options_.writeTimeout, .keeps = sharedMemory.has_value()}};
    if (sharedMemory) {
      for (const std::string& text : engine.resume()) {
        printer_->error("resume", text);
      }
    }
    P4rt::Console console{loop, service, agent, *printer_, out_};
    console.start();
    service.reportsGatheredIs(false);
    if (!options_.config.empty() && !console.play(options_.config)) {
      return badInput;
    }
    checkP4Info(engine);
    P4rt::Server server{loop, engine, serverOptions()};
    const auto shutDown = [&] { server.shutDown([&] { loop.stop(); }); };
    announce(server);
    up_ = true;
    signals_.watch([&] { loop.post(shutDown); });
    if (hasConsole()) {
      console.readInput(prompts(), shutDown);
    }
    loop.run();
    return success;
  }

 private:
  // Keeps the tables that were to be resumed, unless the server has come up.
  struct LeftoverGuard {
    ~LeftoverGuard() {
      if (leftover != nullptr && !program.up_) {
        leftover->keep();
      }
    }
    const Program& program;
    Sim::SharedMemory* leftover;
  };

  [[nodiscard]] std::unique_ptr<Cli::Printer> makePrinter(Cli::Output& errors) const {
    if (options_.json) {
      return Cli::jsonPrinter(out_);
    }
    return Cli::textPrinter(
        out_, errors,
        {.color = Cli::wantsColor(STDOUT_FILENO), .errorColor = Cli::wantsColor(STDERR_FILENO)});
  }

  [[nodiscard]] bool hasConsole() const {
    return options_.console.value_or(::isatty(STDIN_FILENO) == 1);
  }
  [[nodiscard]] bool prompts() const {
    return !options_.json && ::isatty(STDIN_FILENO) == 1 && ::isatty(STDOUT_FILENO) == 1;
  }

  // Refuses a P4Info that no controller could set.
  void checkP4Info(P4rt::Engine& engine) const {
    if (options_.p4info.empty()) {
      return;
    }
    p4::v1::SetForwardingPipelineConfigRequest request;
    request.set_action(p4::v1::SetForwardingPipelineConfigRequest::VERIFY);
    *request.mutable_config()->mutable_p4info() = P4rt::p4infoOf(options_.p4info);
    std::string fault;
    engine.setPipeline(request, [&](const P4rt::RpcStatus& status) { fault = status.message; });
    if (!fault.empty()) {
      throw BadInput{options_.p4info + ": " + fault};
    }
  }

  [[nodiscard]] P4rt::ServerOptions serverOptions() const {
    P4rt::ServerOptions options{.address = options_.address, .service = options_.service};
    if (!options_.tlsKey.empty()) {
      options.tls = P4rt::TlsFiles{.certificate = P4rt::contentOf(options_.tlsCertificate),
                                   .key = P4rt::contentOf(options_.tlsKey),
                                   .clientRoots = {}};
      if (!options_.clientRoots.empty()) {
        options.tls->clientRoots = P4rt::contentOf(options_.clientRoots);
      }
    }
    return options;
  }

  void announce(const P4rt::Server& server) const {
    const std::string address = options_.address.text(server.port());
    const std::string device = std::to_string(options_.service.device);
    std::string p4info;
    if (!options_.p4info.empty()) {
      p4info = std::filesystem::absolute(options_.p4info).lexically_normal().string();
    }
    if (options_.json) {
      Cli::Json line{{"type", "listening"},
                     {"address", address},
                     {"device", options_.service.device},
                     {"tls", !options_.tlsKey.empty()}};
      if (!p4info.empty()) {
        line.add("p4info", p4info);
      }
      out_ << line << '\n' << std::flush;
      return;
    }
    out_ << "P4Runtime " << (options_.tlsKey.empty() ? "without TLS" : "over TLS") << " on "
         << address << ", device " << device << '\n';
    if (!p4info.empty()) {
      out_ << "P4Info for your controller: " << p4info << "\nA shell to try it with:\n"
           << "  python3 -m p4runtime_sh --grpc-addr " << address << " --device-id " << device
           << " --election-id 0,1 --config " << p4info << ",/dev/null\n";
    }
    out_ << (hasConsole()
                 ? "'quit', Ctrl-C or SIGTERM ends it; 'help' lists the console's commands.\n"
                 : "Ctrl-C or SIGTERM ends it.\n")
         << std::flush;
  }

  const P4rt::Options& options_;
  bool up_ = false;
  P4rt::Signals& signals_;
  Cli::Output& out_;
  const std::unique_ptr<Cli::Printer> printer_;
};

Status runProgram(int argc, char** argv, Cli::Output& out, Cli::Output& errors) {
  P4rt::Signals signals;
  silenceGrpc();
  const auto fail = [&](Status status, const std::string& text) {
    out.flush();
    errors << "ostra-p4rt: " << text << '\n';
    return status;
  };
  try {
    const P4rt::Options options = P4rt::parseOptions({argv + 1, argv + argc});
    if (options.help) {
      out << P4rt::usage();
      return success;
    }
    if (options.version) {
      out << "ostra-p4rt " << OSTRA_VERSION << '\n';
      return success;
    }
    return Program{options, signals, out, errors}.run();
  } catch (const Cli::UsageError& error) {
    return fail(badInput, std::string{error.what()} + "\nTry 'ostra-p4rt --help'.");
  } catch (const Cli::ReadError& error) {
    return fail(badInput, "cannot read the commands of --config: " + error.code().message());
  } catch (const P4rt::FileError& error) {
    return fail(badInput, error.what());
  } catch (const Sim::LeftoverError& error) {
    return fail(failure,
                std::string{error.what()} + ": --resume goes on with them, --discard removes them");
  } catch (const BadInput& error) {
    return fail(badInput, error.what());
  } catch (const std::bad_alloc&) {
    return fail(failure, "out of memory");
  } catch (const std::exception& error) {
    return fail(failure, error.what());
  }
}

}  // namespace

int main(int argc, char** argv) {
  Cli::prepareStreams();
  Cli::Output out{STDOUT_FILENO};
  Cli::Output errors{STDERR_FILENO};
  return runProgram(argc, argv, out, errors);
}
