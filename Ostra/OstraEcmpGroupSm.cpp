#include "Ostra/OstraEcmpGroupSm.h"

#include <algorithm>
#include <span>
#include <string>
#include <vector>

#include "Ostra/GroupNumbering.h"
#include "Ostra/Trace.h"
#include "Ostra/private/StepTrace.h"
#include "Ostra/private/TableRows.h"
#include "Ostra/private/WriteWatch.h"
#include "platform/Korm/Clock.h"

namespace Ostra {
namespace {

using Brisklog::TracePoint;
using NexthopGroup::EncapEntry;
using NexthopGroup::EncapId;
using OpenFlowTable::Bucket;
using OpenFlowTable::GroupEntry;
using OpenFlowTable::GroupId;
using OpenFlowTable::GroupType;
using P4Runtime::EntryHandle;
using P4Runtime::ErrorCode;
using P4Runtime::MemberOrGroupId;
using P4RuntimeRouting::EcmpMemberList;
using P4RuntimeRouting::MemberIndex;
using P4RuntimeRouting::NexthopInfo;

constexpr std::string_view scope = "OstraEcmpGroupSm::";

// The handlers trace their calls at the level of failures, so that every text trace shows them.
constexpr int entryLevel = TraceLevel::failure;

constinit TracePoint traceInitialized{traceHandle, entryLevel, scope, "handleInitialized"};
constinit TracePoint traceAllGroups{traceHandle, entryLevel, scope, "handleEcmpGroup"};
constinit TracePoint traceAllMembers{traceHandle, entryLevel, scope, "handleNexthopInfo"};
constinit TracePoint traceAllEncaps{traceHandle, entryLevel, scope, "handleEncapEntry"};
constinit TracePoint traceGroup{traceHandle, entryLevel, scope, "handleEcmpGroup", " groupId=%s"};
constinit TracePoint traceMember{traceHandle, entryLevel, scope, "handleNexthopInfo",
                                 " memberId: %s"};
constinit TracePoint traceEncap{traceHandle, entryLevel, scope, "handleEncapEntry", " encapId: %s"};
constinit TracePoint traceMemberChange{traceHandle, entryLevel, scope,
                                       "maybeUpdateGroupOnMemberChange", " member id: %s"};

constinit StepTrace traceValidateNexthop{traceHandle, entryLevel, scope, "validateNexthop"};
constinit StepTrace traceInvalidEncap{traceHandle, TraceLevel::anomaly, scope, "validateNexthop",
                                      " Action profile member: %s has invalid encapId: %s"};
constinit TracePoint traceCannotProgram{traceHandle, TraceLevel::anomaly, scope, "canProgram",
                                        " ofGroup: %s cannot be programmed"};

constinit TracePoint traceEmptyGroup{traceHandle, TraceLevel::anomaly, scope, "addEcmpGroup",
                                     " Action profile group: %s has empty member"};
constinit TracePoint traceBucket{traceHandle, TraceLevel::routine, scope, "addEcmpGroup",
                                 " Add member ofGroup: %s for group: %s"};
constinit TracePoint traceGroupAdded{traceHandle, TraceLevel::routine, scope, "addEcmpGroup",
                                     " Add ofGroup: %s for groupId: %s"};
constinit TracePoint traceCorvexGroupGone{traceHandle, TraceLevel::routine, scope,
                                          "deleteEcmpGroup", " ofGroup %s deleted in CX config"};
constinit TracePoint traceGroupGone{traceHandle, TraceLevel::routine, scope, "deleteEcmpGroup",
                                    " groupId: %s deleted"};
constinit TracePoint traceMemberAdded{traceHandle, TraceLevel::routine, scope,
                                      "handleNexthopInfoUpdate",
                                      " Add ofGroup: %s for memberId: %s"};
constinit TracePoint traceCorvexMemberGone{traceHandle, TraceLevel::routine, scope,
                                           "handleNexthopInfoDelete",
                                           " ofGroup %s deleted in CX config"};
constinit TracePoint traceMemberGone{traceHandle, TraceLevel::routine, scope,
                                     "handleNexthopInfoDelete", " memberId: %s deleted"};

// Part of every member's bucket.
constexpr OpenFlowTable::FixedBlock memberBlock{0x00, 0x05, 0x41, 0x00, 0x40, 0x00, 0x00, 0x00};

static_assert(MemberIndex::max + 1 == decltype(EcmpMemberList::lists)::max);

void announce(GroupEntry& group) {
  group.deletedIs(false);
  group.readyIs(true);
  group.changeCountIs(Korm::currentTime());
}

OpenFlowTable::EncapInfo toEncapInfo(const EncapEntry& entry) noexcept {
  return {.src = entry.src,
          .dst = entry.dst,
          .type = static_cast<std::uint8_t>(entry.type),
          .ttl = entry.ttl,
          .dscp = entry.dscp,
          .reserved = 0};
}

}  // namespace

OstraEcmpGroupSm::OstraEcmpGroupSm(Inputs inputs) : inputs_{std::move(inputs)} {
  if (inputs_.p4rtEcmpGroupTable) {
    groupReactor_.emplace(*this, inputs_.p4rtEcmpGroupTable->entryNotifiees());
  }
  if (inputs_.p4rtEcmpMemberTable) {
    memberReactor_.emplace(*this, inputs_.p4rtEcmpMemberTable->entryNotifiees());
  }
  if (inputs_.ipv4EncapTable) {
    encapReactor_.emplace(*this, inputs_.ipv4EncapTable->entryNotifiees());
  }
  handleInitialized();
}

void OstraEcmpGroupSm::onNotificationActive(bool active) {
  if (groupReactor_) {
    groupReactor_->hasNotificationActiveIs(active);
  }
  if (memberReactor_) {
    memberReactor_->hasNotificationActiveIs(active);
  }
  if (encapReactor_) {
    encapReactor_->hasNotificationActiveIs(active);
  }
}

// Members come before groups, so that every group finds the Corvex groups of its members.
void OstraEcmpGroupSm::handleInitialized() {
  traceInitialized();
  initialized_ = true;
  startedAt_ = Korm::currentTime();
  handleEncapEntry();
  handleNexthopInfo();
  handleEcmpGroup();
}

void OstraEcmpGroupSm::handleEncapEntry() {
  const auto self = Korm::keptAlive(*this);
  traceAllEncaps();
  forEachRow(inputs_.ipv4EncapTable, AtCorruption::stop_,
             [this](const EncapEntry& row) { handleEncapEntry(row.encapId); });
}

void OstraEcmpGroupSm::handleNexthopInfo() {
  const auto self = Korm::keptAlive(*this);
  traceAllMembers();
  forEachRow(inputs_.p4rtEcmpMemberTable, AtCorruption::stop_,
             [this](const NexthopInfo& row) { handleNexthopInfo(row); });
}

void OstraEcmpGroupSm::handleEcmpGroup() {
  const auto self = Korm::keptAlive(*this);
  traceAllGroups();
  forEachRow(inputs_.p4rtEcmpGroupTable, AtCorruption::stop_,
             [this](const EcmpMemberList& row) { handleEcmpGroup(row); });
}

void OstraEcmpGroupSm::handleEncapEntry(EncapId encapId) {
  const auto self = Korm::keptAlive(*this);
  const Korm::Moment moment;
  traceEncap(encapId);
  forEachRow(inputs_.p4rtEcmpMemberTable, AtCorruption::stop_,
             [this, encapId](const NexthopInfo& row) {
               if (row.encapId == encapId) {
                 handleNexthopInfo(row);
               }
             });
}

void OstraEcmpGroupSm::handleNexthopInfo(MemberOrGroupId memberId) {
  const auto self = Korm::keptAlive(*this);
  const Korm::Moment moment;
  traceMember(memberId);
  const NexthopInfo* const row = findRow(inputs_.p4rtEcmpMemberTable, memberId);
  process(memberGroupId(memberId), [&] {
    row != nullptr ? handleNexthopInfoUpdate(*row) : handleNexthopInfoDelete(memberId);
  });
}

void OstraEcmpGroupSm::handleNexthopInfo(const NexthopInfo& row) {
  traceMember(row.memberId);
  process(memberGroupId(row.memberId), [&] { handleNexthopInfoUpdate(row); });
}

void OstraEcmpGroupSm::handleEcmpGroup(MemberOrGroupId groupId) {
  const auto self = Korm::keptAlive(*this);
  const Korm::Moment moment;
  traceGroup(groupId);
  const EcmpMemberList* const row = findRow(inputs_.p4rtEcmpGroupTable, groupId);
  process(ecmpGroupId(groupId),
          [&] { row != nullptr ? addEcmpGroup(*row) : deleteEcmpGroup(groupId); });
}

void OstraEcmpGroupSm::handleEcmpGroup(const EcmpMemberList& row) {
  traceGroup(row.groupId);
  process(ecmpGroupId(row.groupId), [&] { addEcmpGroup(row); });
}

// Runs the step, notes a refusal, and reports an entry error, so that one bad row does not stop the
// others.
template <class Step>
void OstraEcmpGroupSm::process(GroupId corvexId, Step step) {
  refused_.erase(corvexId);
  try {
    step();
  } catch (const P4Runtime::P4RuntimeExceptionBase& error) {
    refused_.insert(corvexId);
    error.report();
  } catch (...) {
    refused_.insert(corvexId);
    throw;
  }
}

bool OstraEcmpGroupSm::canProgram(GroupId corvexId) const noexcept {
  if (inputs_.cxHwConfig && inputs_.validationHelper) {
    return true;
  }
  traceCannotProgram(corvexId);
  return false;
}

void OstraEcmpGroupSm::validateGroup(const EcmpMemberList& row) const {
  const std::span memberIds = row.memberIds();
  for (std::size_t at = 0; at < memberIds.size(); ++at) {
    const MemberOrGroupId memberId = memberIds[MemberIndex{at}.value()];
    if (groupEntry(memberGroupId(memberId)) == nullptr) {
      inputs_.validationHelper->throwEntryErrorException(
          row.entryHandle, ErrorCode::invalidArgument_,
          "Action profile group: " + std::to_string(row.groupId) + " member " +
              std::to_string(memberId) + " not found");
    }
  }
}

const EncapEntry& OstraEcmpGroupSm::validateNexthop(const NexthopInfo& row) const {
  traceValidateNexthop();
  const std::string memberId = std::to_string(row.memberId);
  inputs_.validationHelper->validatePortId(row.entryHandle, row.p4PortId,
                                           "Action profile member " + memberId);
  const EncapEntry* const encap = findRow(inputs_.ipv4EncapTable, row.encapId);
  if (encap == nullptr) {
    traceInvalidEncap(row.memberId, row.encapId);
    inputs_.validationHelper->throwEntryErrorException(
        row.entryHandle, ErrorCode::invalidArgument_,
        "Action profile member: " + memberId +
            " has invalid encapId: " + std::to_string(row.encapId));
  }
  return *encap;
}

void OstraEcmpGroupSm::addEcmpGroup(const EcmpMemberList& row) {
  const MemberOrGroupId groupId = row.groupId;
  const GroupId corvexId = ecmpGroupId(groupId);
  if (!canProgram(corvexId)) {
    return;
  }
  validateGroup(row);
  // Buckets have no weights, but a damaged list of weights is refused all the same.
  static_cast<void>(row.weights());
  if (row.memberIds().empty()) {
    traceEmptyGroup(groupId);
    return;
  }
  GroupEntry* group = groupEntry(corvexId);
  if (group != nullptr) {
    group->bucketDelAll();
    group->bucketReserve(row.memberIds().size());
    copyMemberBuckets(row, [group](const Bucket& bucket) { group->bucketEnq(bucket); });
  } else {
    // Copied before the group is created, because a reactor to the creation may change its members.
    std::vector<Bucket> buckets;
    buckets.reserve(row.memberIds().size());
    copyMemberBuckets(row, [&buckets](const Bucket& bucket) { buckets.push_back(bucket); });
    group = newGroup(corvexId);
    if (group == nullptr) {
      return;
    }
    group->bucketReserve(buckets.size());
    std::for_each(buckets.begin(), buckets.end(),
                  [group](const Bucket& bucket) { group->bucketEnq(bucket); });
  }
  group->groupTypeIs(GroupType::select_);
  announce(*group);
  traceGroupAdded(corvexId, groupId);
}

template <class Put>
void OstraEcmpGroupSm::copyMemberBuckets(const EcmpMemberList& row, Put put) const {
  const std::span memberIds = row.memberIds();
  for (std::size_t at = 0; at < memberIds.size(); ++at) {
    const GroupId memberId = memberGroupId(memberIds[MemberIndex{at}.value()]);
    const GroupEntry* const cxEntry = groupEntry(memberId);
    Korm::assertTrue(cxEntry != nullptr && cxEntry->buckets() == 1, "cxEntry->buckets() == 1");
    put(cxEntry->bucket().front());
    traceBucket(memberId, ecmpGroupId(row.groupId));
  }
}

void OstraEcmpGroupSm::deleteEcmpGroup(MemberOrGroupId groupId) {
  const GroupId corvexId = ecmpGroupId(groupId);
  if (inputs_.cxHwConfig && inputs_.cxHwConfig->groupEntryDel(corvexId)) {
    traceCorvexGroupGone(corvexId);
  }
  traceGroupGone(groupId);
  if (inputs_.p4HandleMgr) {
    acknowledgeDelete(P4Runtime::P4HandleMgr::groupHandleToEntryHandle(
        inputs_.p4HandleMgr->getGroupHandleFromGroupId(groupId)));
  }
}

void OstraEcmpGroupSm::handleNexthopInfoUpdate(const NexthopInfo& row) {
  const MemberOrGroupId memberId = row.memberId;
  const GroupId corvexId = memberGroupId(memberId);
  if (!canProgram(corvexId)) {
    return;
  }
  const Bucket bucket = memberBucket(row, validateNexthop(row));
  GroupEntry* group = groupEntry(corvexId);
  if (group == nullptr) {
    group = newGroup(corvexId);
  }
  if (group == nullptr) {
    return;
  }
  group->groupTypeIs(GroupType::indirect_);
  group->bucketDelAll();
  group->bucketEnq(bucket);
  announce(*group);
  traceMemberAdded(corvexId, memberId);
  maybeUpdateGroupOnMemberChange(memberId);
}

Bucket OstraEcmpGroupSm::memberBucket(const NexthopInfo& row, const EncapEntry& encapInfo) const {
  Bucket bucket;
  OpenFlowTable::Actions& actions = bucket.actions;
  actions.outputIntfIs(inputs_.p4RtPortMappingStatus
                           ? inputs_.p4RtPortMappingStatus->p4PortIdToIntfId(row.p4PortId)
                           : Interface::IntfId{},
                       true);
  Korm::assertTrue(encapInfo.encapType() == NexthopGroup::L2NhgEncapType::encapIpInIp_,
                   "encapInfo.encapType() == NexthopGroup::L2NhgEncapType::encapIpInIp_");
  actions.encapIs(toEncapInfo(encapInfo), true);
  const Korm::EthAddr dstMac = P4RuntimeRouting::toEthAddr(row.dstMac);
  const Korm::EthAddr srcMac = P4RuntimeRouting::toEthAddr(row.srcMac);
  actions.dstMacIs(dstMac, !dstMac.isZero());
  actions.srcMacIs(srcMac, !srcMac.isZero());
  actions.fixedBlockIs(memberBlock, true);
  return bucket;
}

// The groups that list the member keep their copy of its bucket until their own rows change.
void OstraEcmpGroupSm::handleNexthopInfoDelete(MemberOrGroupId memberId) {
  const GroupId corvexId = memberGroupId(memberId);
  if (inputs_.cxHwConfig && inputs_.cxHwConfig->groupEntryDel(corvexId)) {
    traceCorvexMemberGone(corvexId);
  }
  traceMemberGone(memberId);
  if (inputs_.p4HandleMgr) {
    acknowledgeDelete(inputs_.p4HandleMgr->getEntryHandleFromMemberId(memberId));
  }
}

void OstraEcmpGroupSm::acknowledgeDelete(EntryHandle handle) const {
  if (inputs_.batchStatus) {
    inputs_.batchStatus->markTransactionSucceeded(handle);
  }
}

void OstraEcmpGroupSm::maybeUpdateGroupOnMemberChange(MemberOrGroupId memberId) {
  traceMemberChange(memberId);
  forEachRow(inputs_.p4rtEcmpGroupTable, AtCorruption::stop_,
             [this, memberId](const EcmpMemberList& row) {
               const std::span memberIds = row.memberIds();
               if (std::find(memberIds.begin(), memberIds.end(), memberId) != memberIds.end() &&
                   groupEntry(ecmpGroupId(row.groupId)) != nullptr) {
                 handleEcmpGroup(row);
               }
             });
}

GroupEntry* OstraEcmpGroupSm::groupEntry(GroupId id) const noexcept {
  return inputs_.cxHwConfig ? inputs_.cxHwConfig->groupEntry(id) : nullptr;
}

GroupEntry* OstraEcmpGroupSm::newGroup(GroupId id) {
  const WriteWatch<GroupId> watch{inputs_.cxHwConfig->groupEntryNotifiees(), id};
  GroupEntry& group = inputs_.cxHwConfig->groupEntryIs(id);
  return watch.overtaken() ? nullptr : &group;
}

namespace {

// The refusal for which a check throws, or nothing.
template <class Check>
std::optional<ProfileRefusal> refusalBy(Check check) {
  const DryRun dryRun;
  ProfileRefusal refusal;
  try {
    check();
    return std::nullopt;
  } catch (const P4Runtime::P4RuntimeExceptionBase& error) {
    refusal.message = error.what();
    if (const auto* const own = dynamic_cast<const P4Runtime::EntryErrorException*>(&error)) {
      refusal.code = own->code();
    }
  } catch (const Korm::RangeException& error) {
    refusal.message = error.what();
    refusal.damaged = true;
  }
  return refusal;
}

}  // namespace

MemberPreview OstraEcmpGroupSm::preview(const NexthopInfo& row) const {
  MemberPreview preview;
  preview.refusal = refusalBy([&] { preview.bucket = memberBucket(row, validateNexthop(row)); });
  return preview;
}

std::optional<ProfileRefusal> OstraEcmpGroupSm::refusalOf(const EcmpMemberList& row) const {
  if (auto refusal = refusalBy([&] {
        validateGroup(row);
        static_cast<void>(row.weights());
      })) {
    return refusal;
  }
  return row.memberIds().empty()
             ? std::optional{ProfileRefusal{.code = std::nullopt,
                                            .message = "the list of members is empty",
                                            .damaged = false}}
             : std::nullopt;
}

}  // namespace Ostra
