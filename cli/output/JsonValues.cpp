#include "cli/output/JsonValues.h"

#include <cmath>
#include <cstdint>
#include <string>

#include "cli/output/TextValues.h"
#include "platform/Korm/Text.h"

namespace Cli {
namespace {

using OpenFlowTable::EncapInfo;
using OpenFlowTable::Masked;
using OpenFlowTable::PolicerConfig;

// From here on a double cannot tell neighbouring whole numbers apart.
constexpr double largestWhole = 9007199254740992.0;

template <class T>
Json toJson(const T& value) {
  if constexpr (requires { value.text(); }) {
    return value.text();
  } else if constexpr (std::is_enum_v<T>) {
    return static_cast<std::underlying_type_t<T>>(value);
  } else {
    return value;
  }
}

Json toJson(const Interface::IntfId& intf) { return std::string{intf.name()}; }

template <class T>
Json toJson(const Masked<T>& field) {
  return {{"value", toJson(field.value)}, {"mask", toJson(field.mask)}};
}

Json toJson(const PolicerConfig& policer) {
  Json drop = Json::array();
  for (const std::string_view color : droppedColors(policer)) {
    drop.push(color);
  }
  return {{"rate", policer.rate}, {"burst", policer.burst}, {"drop", std::move(drop)}};
}

Json toJson(const EncapInfo& encap) {
  return {{"type", encapTypeText(encap.type)},
          {"src", encap.src.text()},
          {"dst", encap.dst.text()},
          {"ttl", encap.ttl},
          {"dscp", encap.dscp}};
}

Json toJson(const OpenFlowTable::FixedBlock& block) {
  return Korm::hexText(block.data(), block.size());
}

}  // namespace

Json secondsToJson(double seconds) {
  if (std::trunc(seconds) == seconds && std::abs(seconds) < largestWhole) {
    return static_cast<std::int64_t>(seconds);
  }
  return seconds;
}

Json matchToJson(const OpenFlowTable::Match& match) {
  Json result = Json::object();
  match.forEachSet([&result](const OpenFlowTable::MatchFieldInfo& info, const auto& field) {
    result.add(info.name, toJson(field));
  });
  return result;
}

Json actionsToJson(const OpenFlowTable::Actions& actions) {
  Json result = Json::object();
  actions.forEachPresent(
      [&result](std::string_view name, const auto& value) { result.add(name, toJson(value)); });
  return result;
}

Json flowToJson(const Korm::Name& name, const OpenFlowTable::FlowEntry& flow) {
  return {{"name", name},
          {"entryId", flow.entryId()},
          {"priority", flow.priority().value()},
          {"priorityGroup", flow.priorityGroupType()},
          {"tableType", static_cast<std::int32_t>(flow.tableType())},
          {"changeCount", secondsToJson(flow.changeCount())},
          {"match", matchToJson(flow.match())},
          {"actions", actionsToJson(flow.actions())}};
}

Json groupToJson(const OpenFlowTable::GroupEntry& group) {
  Json buckets = Json::array();
  for (const OpenFlowTable::Bucket& bucket : group.bucket()) {
    buckets.push({{"actions", actionsToJson(bucket.actions)}});
  }
  return {{"id", group.id()},
          {"groupType", static_cast<unsigned>(group.groupType())},
          {"deleted", group.deleted()},
          {"ready", group.ready()},
          {"changeCount", secondsToJson(group.changeCount())},
          {"buckets", std::move(buckets)}};
}

}  // namespace Cli
