// What a P4Runtime Write costs below gRPC: from the message to the hardware's answer.
#include <google/protobuf/text_format.h>

#include <cstdint>
#include <deque>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>

#include <benchmark/benchmark.h>

#include "p4rt/Engine.h"
#include "sim/HwAgent.h"
#include "sim/Service.h"

namespace {

// Timers that never fire, because no answer is late.
class NoTimers final : public P4rt::Timers {
 public:
  Id after(std::chrono::milliseconds /*delay*/, std::function<void()> /*work*/) override {
    return 0;
  }
  void cancel(Id /*timer*/) override {}
};

struct Switch {
  Switch() {
    service.portIs(1, Interface::IntfId{"Ethernet1"});
    service.start();
    service.reportsGatheredIs(false);
    std::ifstream file{OSTRA_P4INFO};
    std::stringstream text;
    text << file.rdbuf();
    p4::v1::SetForwardingPipelineConfigRequest request;
    request.set_action(p4::v1::SetForwardingPipelineConfigRequest::VERIFY_AND_COMMIT);
    google::protobuf::TextFormat::ParseFromString(text.str(),
                                                  request.mutable_config()->mutable_p4info());
    engine.setPipeline(request, [](const P4rt::RpcStatus& /*status*/) {});
  }

  NoTimers timers;
  Sim::Service service;
  Sim::HwAgent agent{service.hwConfig(), service.hwStatusDir(), service.hwUnitDir()};
  P4rt::Engine engine{service, timers};
};

constexpr std::uint32_t updates = 1000;

std::string bytes(std::uint32_t value) {
  return {static_cast<char>(value >> 24U), static_cast<char>(value >> 16U),
          static_cast<char>(value >> 8U), static_cast<char>(value)};
}

// 1,000 flows of the ACL. Each matches the Ethernet type and an address, counted from `first`.
p4::v1::WriteRequest flows(p4::v1::Update::Type type, std::uint32_t first) {
  p4::v1::WriteRequest request;
  for (std::uint32_t number = first; number < first + updates; ++number) {
    p4::v1::Update& update = *request.add_updates();
    update.set_type(type);
    p4::v1::TableEntry& entry = *update.mutable_entity()->mutable_table_entry();
    entry.set_table_id(0x02000001);
    entry.set_priority(10);
    p4::v1::FieldMatch& etherType = *entry.add_match();
    etherType.set_field_id(5);
    etherType.mutable_ternary()->set_value(std::string("\x08\x00", 2));
    etherType.mutable_ternary()->set_mask("\xff\xff");
    p4::v1::FieldMatch& address = *entry.add_match();
    address.set_field_id(8);
    address.mutable_ternary()->set_value(bytes(0x0a000000U + number));
    address.mutable_ternary()->set_mask("\xff\xff\xff\xff");
    p4::v1::Action& action = *entry.mutable_action()->mutable_action();
    action.set_action_id(0x01000003);
    p4::v1::Action::Param& param = *action.add_params();
    param.set_param_id(1);
    param.set_value("\x01");
  }
  return request;
}

void write(benchmark::State& state, Switch& device, const p4::v1::WriteRequest& request) {
  bool ok = false;
  device.engine.write(request, [&ok](const P4rt::RpcStatus& status) { ok = status.ok(); });
  if (!ok) {
    state.SkipWithError("a write failed");
  }
}

// Inserts batches of 1,000 flows. A table that holds 65,000 is replaced by an empty one.
void BM_EngineInsert(benchmark::State& state) {
  auto device = std::make_unique<Switch>();
  std::uint32_t first = 0;
  for (auto _ : state) {
    state.PauseTiming();
    if (first == 65 * updates) {
      device = std::make_unique<Switch>();
      first = 0;
    }
    const auto request = flows(p4::v1::Update::INSERT, first);
    first += updates;
    state.ResumeTiming();
    write(state, *device, request);
  }
  state.SetItemsProcessed(state.iterations() * updates);
}
BENCHMARK(BM_EngineInsert)->Unit(benchmark::kMicrosecond);

void BM_EngineModify(benchmark::State& state) {
  Switch device;
  write(state, device, flows(p4::v1::Update::INSERT, 0));
  const auto request = flows(p4::v1::Update::MODIFY, 0);
  for (auto _ : state) {
    write(state, device, request);
  }
  state.SetItemsProcessed(state.iterations() * updates);
}
BENCHMARK(BM_EngineModify)->Unit(benchmark::kMicrosecond);

// Reads 65,000 flows with their counters.
void BM_EngineRead(benchmark::State& state) {
  Switch device;
  for (std::uint32_t first = 0; first < 65 * updates; first += updates) {
    write(state, device, flows(p4::v1::Update::INSERT, first));
  }
  p4::v1::ReadRequest request;
  request.add_entities()->mutable_table_entry()->mutable_counter_data();
  std::int64_t entities = 0;
  for (auto _ : state) {
    device.engine.read(
        request,
        [&entities](p4::v1::ReadResponse&& response) { entities += response.entities_size(); },
        [](const P4rt::RpcStatus& /*status*/) {});
  }
  state.SetItemsProcessed(entities);
}
BENCHMARK(BM_EngineRead)->Unit(benchmark::kMillisecond);

}  // namespace
