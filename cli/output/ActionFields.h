// The fields of a match and the actions of a flow or a bucket, one after the other, for those who print
// them.
//
// Thread and process rule: constants and free functions.
#pragma once

#include <tuple>

#include "platform/OpenFlowTable/Actions.h"
#include "platform/OpenFlowTable/Match.h"

namespace Cli {

// An action with a value, and the one that reads it.
template <class T>
struct ActionFieldInfo {
  const char* name;
  OpenFlowTable::Action action;
  T (OpenFlowTable::Actions::*value)() const noexcept;
};

template <class T>
ActionFieldInfo(const char*, OpenFlowTable::Action, T (OpenFlowTable::Actions::*)() const noexcept)
    -> ActionFieldInfo<T>;

// An action that is there or not.
struct ActionFlagInfo {
  const char* name;
  OpenFlowTable::Action action;
};

inline constexpr std::tuple actionFields = [] {
  using OpenFlowTable::Action;
  using OpenFlowTable::Actions;
  return std::tuple{
      ActionFieldInfo{"trafficClass", Action::trafficClass_, &Actions::trafficClass},
      ActionFlagInfo{"drop", Action::drop_},
      ActionFlagInfo{"copyToCpu", Action::copyToCpu_},
      ActionFlagInfo{"decTtl", Action::decTtl_},
      ActionFieldInfo{"setDscp", Action::setDscp_, &Actions::setDscp},
      ActionFieldInfo{"setEthSrc", Action::setEthSrc_, &Actions::setEthSrc},
      ActionFieldInfo{"setEthDst", Action::setEthDst_, &Actions::setEthDst},
      ActionFieldInfo{"ingrMirrorIntf", Action::ingrMirrorIntf_, &Actions::ingrMirrorIntf},
      ActionFieldInfo{"egrMirrorIntf", Action::egrMirrorIntf_, &Actions::egrMirrorIntf},
      ActionFieldInfo{"outputIntf", Action::outputIntf_, &Actions::outputIntf},
      ActionFieldInfo{"vrf", Action::vrf_, &Actions::vrf},
      ActionFieldInfo{"vlanId", Action::vlanId_, &Actions::vlanId},
      ActionFieldInfo{"policer", Action::policer_, &Actions::policer},
      ActionFieldInfo{"cpuTrafficClass", Action::cpuTrafficClass_, &Actions::cpuTrafficClass},
      ActionFieldInfo{"group", Action::group_, &Actions::group},
      ActionFieldInfo{"encap", Action::encap_, &Actions::encap},
      ActionFieldInfo{"dstMac", Action::dstMac_, &Actions::dstMac},
      ActionFieldInfo{"srcMac", Action::srcMac_, &Actions::srcMac},
      ActionFieldInfo{"fixedBlock", Action::fixedBlock_, &Actions::fixedBlock},
  };
}();

// Calls visit(name, value) for each action that is present; the value of a flag is true.
template <class Visit>
void forEachAction(const OpenFlowTable::Actions& actions, Visit&& visit) {
  const auto visitOne = [&](const auto& info) {
    if (actions.has(info.action)) {
      if constexpr (requires { info.value; }) {
        visit(info.name, (actions.*info.value)());
      } else {
        visit(info.name, true);
      }
    }
  };
  std::apply([&](const auto&... info) { (visitOne(info), ...); }, actionFields);
}

// Calls visit(name, value) for each field of the match that is set, with its Masked value or its plain one.
template <class Visit>
void forEachMatchField(const OpenFlowTable::Match& match, Visit&& visit) {
  const auto visitOne = [&](const auto& info) {
    if (match.has(info.field)) {
      visit(info.name, match.*info.member);
    }
  };
  std::apply([&](const auto&... info) { (visitOne(info), ...); }, OpenFlowTable::matchFields);
}

}  // namespace Cli
