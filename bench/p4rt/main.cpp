// ostra-p4rt-load: what a controller gets through one connection to ostra-p4rt on the same machine,
// and what that costs the server.
//
// Every Write waits for the hardware's answer, as all do. Requests are made before the clock runs.
// The program ends when an update failed or something else came back than was written.

#include <google/protobuf/text_format.h>
#include <grpcpp/grpcpp.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <mutex>
#include <numeric>
#include <random>
#include <string>
#include <vector>

#include "bench/p4rt/ServerProcess.h"
#include "p4/v1/p4runtime.grpc.pb.h"

namespace P4rtBench {
namespace {

using p4::v1::Update;
using p4::v1::WriteRequest;

// The two of the largest tables; one has not room for all.
constexpr std::uint32_t firstTable = 0x02000001;
constexpr std::uint32_t forwardAction = 0x01000003;
constexpr std::uint32_t trafficClassAction = 0x01000007;
constexpr std::uint32_t etherTypeField = 5;
constexpr std::uint32_t ip4DstField = 8;
constexpr int batchSize = 1000;
constexpr int batchesInFlight = 4;
constexpr int writesInFlight = 32;

[[noreturn]] void fail(const std::string& what) {
  std::fprintf(stderr, "ostra-p4rt-load: %s\n", what.c_str());
  std::exit(1);
}

std::string bytes(std::uint32_t value, int size) {
  std::string text;
  for (int shift = 8 * (size - 1); shift >= 0; shift -= 8) {
    text += static_cast<char>(value >> shift & 0xFFU);
  }
  return text;
}

void fieldIs(p4::v1::TableEntry& entry, std::uint32_t field, const std::string& value) {
  auto& match = *entry.add_match();
  match.set_field_id(field);
  match.mutable_ternary()->set_value(value);
  match.mutable_ternary()->set_mask(std::string(value.size(), '\xFF'));
}

// A flow to an IPv4 address: new ones are forwarded, modified ones get a traffic class.
void flowIs(Update& update, Update::Type type, std::uint32_t number) {
  update.set_type(type);
  auto& entry = *update.mutable_entity()->mutable_table_entry();
  entry.set_table_id(firstTable + number % 2);
  entry.set_priority(static_cast<std::int32_t>(1 + number % 65536));
  fieldIs(entry, etherTypeField, bytes(0x0800, 2));
  fieldIs(entry, ip4DstField, bytes(0x0A000000U + number, 4));
  if (type != Update::DELETE) {
    const bool isNew = type == Update::INSERT;
    auto& action = *entry.mutable_action()->mutable_action();
    action.set_action_id(isNew ? forwardAction : trafficClassAction);
    auto& parameter = *action.add_params();
    parameter.set_param_id(1);
    parameter.set_value(bytes(isNew ? 1 + number % 8 : 1 + number % 7, 1));
  }
}

class Controller {
 public:
  explicit Controller(const std::string& address) {
    grpc::ChannelArguments arguments;
    arguments.SetMaxReceiveMessageSize(-1);
    stub_ = p4::v1::P4Runtime::NewStub(
        grpc::CreateCustomChannel(address, grpc::InsecureChannelCredentials(), arguments));
    stream_ = stub_->StreamChannel(&streamContext_);
    p4::v1::StreamMessageRequest hello;
    hello.mutable_arbitration()->set_device_id(1);
    hello.mutable_arbitration()->mutable_election_id()->set_low(1);
    p4::v1::StreamMessageResponse answer;
    if (!stream_->Write(hello) || !stream_->Read(&answer) ||
        answer.arbitration().status().code() != 0) {
      fail("not the primary");
    }
  }
  ~Controller() {
    stream_->WritesDone();
    (void)stream_->Finish();
  }
  Controller(const Controller&) = delete;
  Controller& operator=(const Controller&) = delete;

  void pipelineIs(const std::string& file) {
    std::ifstream input{file};
    const std::string text{std::istreambuf_iterator<char>{input}, {}};
    p4::v1::SetForwardingPipelineConfigRequest request;
    request.set_device_id(1);
    request.mutable_election_id()->set_low(1);
    request.set_action(p4::v1::SetForwardingPipelineConfigRequest::VERIFY_AND_COMMIT);
    if (!google::protobuf::TextFormat::ParseFromString(
            text, request.mutable_config()->mutable_p4info())) {
      fail("cannot read " + file);
    }
    grpc::ClientContext context;
    p4::v1::SetForwardingPipelineConfigResponse response;
    check(stub_->SetForwardingPipelineConfig(&context, request, &response));
  }

  // Sends all requests, so many at a time, and waits for the answers.
  void write(const std::vector<WriteRequest>& requests, int inFlight) {
    std::atomic<std::size_t> next = 0;
    std::mutex mutex;
    std::condition_variable done;
    std::size_t left = requests.size();
    struct Call {
      grpc::ClientContext context;
      p4::v1::WriteResponse response;
    };
    const std::function<void()> sendNext = [&] {
      const std::size_t at = next++;
      if (at >= requests.size()) {
        return;
      }
      auto* const call = new Call;
      stub_->async()->Write(&call->context, &requests[at], &call->response,
                            [&, call](const grpc::Status& status) {
                              check(status);
                              delete call;
                              sendNext();
                              const std::lock_guard lock{mutex};
                              if (--left == 0) {
                                done.notify_one();
                              }
                            });
    };
    for (int call = 0; call < inFlight; ++call) {
      sendNext();
    }
    std::unique_lock lock{mutex};
    done.wait(lock, [&] { return left == 0; });
  }

  // Reads all tables and returns how many entries came.
  int readAll() {
    p4::v1::ReadRequest request;
    request.set_device_id(1);
    request.add_entities()->mutable_table_entry();
    grpc::ClientContext context;
    const auto reader = stub_->Read(&context, request);
    int count = 0;
    for (p4::v1::ReadResponse response; reader->Read(&response);) {
      count += response.entities_size();
    }
    check(reader->Finish());
    return count;
  }

 private:
  static void check(const grpc::Status& status) {
    if (!status.ok()) {
      fail("an RPC failed with code " + std::to_string(status.error_code()) + ": " +
           status.error_message());
    }
  }

  std::unique_ptr<p4::v1::P4Runtime::Stub> stub_;
  grpc::ClientContext streamContext_;
  std::unique_ptr<
      grpc::ClientReaderWriter<p4::v1::StreamMessageRequest, p4::v1::StreamMessageResponse>>
      stream_;
};

class Load {
 public:
  Load(const std::string& program, const std::string& folder, std::uint32_t flows)
      : server_{program, folder + "/topology.txt"}, controller_{server_.address()} {
    controller_.pipelineIs(folder + "/ostra.p4info.txt");
    numbers_.resize(flows);
    std::iota(numbers_.begin(), numbers_.end(), 0U);
  }

  void run() {
    std::printf("%-44s %10s %12s %14s\n", "", "number", "per second", "server us each");
    const double before = server_.memory();
    write("insert, 1000 a Write, 4 in flight", Update::INSERT, batchSize, batchesInFlight);
    const double memory = server_.memory() - before;
    read("read all of them");
    write("modify, 1000 a Write, 4 in flight", Update::MODIFY, batchSize, batchesInFlight);
    write("delete, 1000 a Write, 4 in flight", Update::DELETE, batchSize, batchesInFlight);
    write("insert, 1 a Write, 32 in flight", Update::INSERT, 1, writesInFlight);
    write("delete, 1 a Write, 32 in flight", Update::DELETE, 1, writesInFlight);
    write("insert, 1000 a Write, 1 in flight", Update::INSERT, batchSize, 1);
    std::printf("resident memory for each flow: %.0f bytes\n",
                memory / static_cast<double>(numbers_.size()));
  }

 private:
  using Clock = std::chrono::steady_clock;

  void write(const char* what, Update::Type type, int size, int inFlight) {
    std::shuffle(numbers_.begin(), numbers_.end(), random_);
    std::vector<WriteRequest> requests;
    for (std::size_t at = 0; at < numbers_.size();) {
      WriteRequest& request = requests.emplace_back();
      request.set_device_id(1);
      request.mutable_election_id()->set_low(1);
      for (int update = 0; update < size && at < numbers_.size(); ++update) {
        flowIs(*request.add_updates(), type, numbers_[at++]);
      }
    }
    measure(what, [&] { controller_.write(requests, inFlight); });
  }

  void read(const char* what) {
    measure(what, [&] {
      if (static_cast<std::size_t>(controller_.readAll()) != numbers_.size()) {
        fail("not all flows were read back");
      }
    });
  }

  template <class Work>
  void measure(const char* what, Work work) {
    constexpr double micro = 1e6;
    const double processorBefore = server_.processorTime();
    const Clock::time_point begun = Clock::now();
    work();
    const double seconds = std::chrono::duration<double>(Clock::now() - begun).count();
    const double processor = server_.processorTime() - processorBefore;
    const auto number = static_cast<double>(numbers_.size());
    std::printf("%-44s %10.0f %12.0f %14.1f   (%.2f s)\n", what, number, number / seconds,
                processor / number * micro, seconds);
    std::fflush(stdout);
  }

  ServerProcess server_;
  Controller controller_;
  std::vector<std::uint32_t> numbers_;
  std::mt19937 random_{1};
};

}  // namespace
}  // namespace P4rtBench

int main(int argc, char** argv) {
  constexpr std::uint32_t defaultFlows = 100'000;
  try {
    const std::uint32_t flows =
        argc > 1 ? static_cast<std::uint32_t>(std::stoul(argv[1])) : defaultFlows;
    P4rtBench::Load{argc > 2 ? argv[2] : OSTRA_P4RT_PROGRAM, OSTRA_P4RT_FOLDER, flows}.run();
  } catch (const std::exception& error) {
    P4rtBench::fail(error.what());
  }
}
