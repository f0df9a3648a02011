#include "Ostra/OstraEcmpGroupSm.h"

#include <algorithm>
#include <span>
#include <string>

#include "Ostra/GroupNumbering.h"
#include "Ostra/Trace.h"
#include "platform/Korm/Clock.h"
#include "platform/Vasta/Errors.h"

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

// The handlers trace their entry at the level of failures, so that it is seen whenever anything is.
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

constinit TracePoint traceValidateNexthop{traceHandle, entryLevel, scope, "validateNexthop"};
constinit TracePoint traceInvalidEncap{traceHandle, TraceLevel::anomaly, scope, "validateNexthop",
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

// Stands in every member's bucket.
constexpr OpenFlowTable::FixedBlock memberBlock{0x00, 0x05, 0x41, 0x00, 0x40, 0x00, 0x00, 0x00};

static_assert(MemberIndex::max + 1 == decltype(EcmpMemberList::lists)::max);

// The row in place, or null: not there, or corrupt, which the table hears of.
template <class Table>
const typename Table::Record* findRow(const Korm::Ptr<Table>& table,
                                      const typename Table::Key& key) {
  if (!table) {
    return nullptr;
  }
  try {
    return table->entry(key);
  } catch (const Vasta::Corruption& corruption) {
    table->reportCorruption(corruption.what());
    return nullptr;
  }
}

// As findRow(), for a walk. A corrupt row ends it.
template <class Table>
const typename Table::Record* nextRow(const Korm::Ptr<Table>& table, Vasta::Hint& hint) {
  try {
    return table->next(hint);
  } catch (const Vasta::Corruption& corruption) {
    table->reportCorruption(corruption.what());
    return nullptr;
  }
}

// Shows `visit` the rows in place, up to a corrupt one. The table may change meanwhile.
template <class Table, class Visit>
void walk(const Korm::Ptr<Table>& table, Visit visit) {
  if (!table) {
    return;
  }
  Vasta::Hint hint;
  while (const auto* const row = nextRow(table, hint)) {
    visit(*row);
  }
}

// One bad row never stops the processing of others.
template <class Step>
void reportingEntryErrors(Step step) {
  try {
    step();
  } catch (const P4Runtime::P4RuntimeExceptionBase& error) {
    error.report();
  }
}

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

OstraEcmpGroupSm::OstraEcmpGroupSm(
    Korm::Ptr<OpenFlowTable::CorvexHwConfig> cxHwConfig,
    Korm::Ptr<P4RuntimeRouting::EcmpGroup> p4rtEcmpGroupTable,
    Korm::Ptr<P4RuntimeRouting::EcmpMember> p4rtEcmpMemberTable,
    Korm::Ptr<NexthopGroup::L2NexthopGroupEncapTable> ipv4EncapTable,
    Korm::Ptr<const P4RuntimeConfig::PortMappingStatus> p4RtPortMappingStatus,
    Korm::Ptr<P4Runtime::ValidationHelper> validationHelper,
    Korm::Ptr<P4Runtime::BatchStatus> batchStatus, Korm::Ptr<P4Runtime::P4HandleMgr> p4HandleMgr)
    : cxHwConfig_{std::move(cxHwConfig)},
      p4rtEcmpGroupTable_{std::move(p4rtEcmpGroupTable)},
      p4rtEcmpMemberTable_{std::move(p4rtEcmpMemberTable)},
      ipv4EncapTable_{std::move(ipv4EncapTable)},
      p4RtPortMappingStatus_{std::move(p4RtPortMappingStatus)},
      validationHelper_{std::move(validationHelper)},
      batchStatus_{std::move(batchStatus)},
      p4HandleMgr_{std::move(p4HandleMgr)} {
  if (p4rtEcmpGroupTable_) {
    groupReactor_.emplace(*this, p4rtEcmpGroupTable_->entryNotifiees());
  }
  if (p4rtEcmpMemberTable_) {
    memberReactor_.emplace(*this, p4rtEcmpMemberTable_->entryNotifiees());
  }
  if (ipv4EncapTable_) {
    encapReactor_.emplace(*this, ipv4EncapTable_->entryNotifiees());
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

// Members before groups, so that every group finds the groups of its members.
void OstraEcmpGroupSm::handleInitialized() {
  traceInitialized();
  initialized_ = true;
  handleEncapEntry();
  handleNexthopInfo();
  handleEcmpGroup();
}

void OstraEcmpGroupSm::handleEncapEntry() {
  traceAllEncaps();
  walk(ipv4EncapTable_, [this](const EncapEntry& row) { handleEncapEntry(row.encapId); });
}

void OstraEcmpGroupSm::handleNexthopInfo() {
  traceAllMembers();
  walk(p4rtEcmpMemberTable_, [this](const NexthopInfo& row) { handleNexthopInfo(row); });
}

void OstraEcmpGroupSm::handleEcmpGroup() {
  traceAllGroups();
  walk(p4rtEcmpGroupTable_, [this](const EcmpMemberList& row) { handleEcmpGroup(row); });
}

void OstraEcmpGroupSm::handleEncapEntry(EncapId encapId) {
  const Korm::Moment moment;
  traceEncap(encapId);
  walk(p4rtEcmpMemberTable_, [this, encapId](const NexthopInfo& row) {
    if (row.encapId == encapId) {
      handleNexthopInfo(row);
    }
  });
}

void OstraEcmpGroupSm::handleNexthopInfo(MemberOrGroupId memberId) {
  const Korm::Moment moment;
  traceMember(memberId);
  const NexthopInfo* const row = findRow(p4rtEcmpMemberTable_, memberId);
  reportingEntryErrors(
      [&] { row != nullptr ? handleNexthopInfoUpdate(*row) : handleNexthopInfoDelete(memberId); });
}

void OstraEcmpGroupSm::handleNexthopInfo(const NexthopInfo& row) {
  traceMember(row.memberId);
  reportingEntryErrors([&] { handleNexthopInfoUpdate(row); });
}

void OstraEcmpGroupSm::handleEcmpGroup(MemberOrGroupId groupId) {
  const Korm::Moment moment;
  traceGroup(groupId);
  const EcmpMemberList* const row = findRow(p4rtEcmpGroupTable_, groupId);
  reportingEntryErrors([&] { row != nullptr ? addEcmpGroup(*row) : deleteEcmpGroup(groupId); });
}

void OstraEcmpGroupSm::handleEcmpGroup(const EcmpMemberList& row) {
  traceGroup(row.groupId);
  reportingEntryErrors([&] { addEcmpGroup(row); });
}

bool OstraEcmpGroupSm::canProgram(GroupId corvexId) const noexcept {
  if (cxHwConfig_ && validationHelper_) {
    return true;
  }
  traceCannotProgram(corvexId);
  return false;
}

void OstraEcmpGroupSm::validateGroup(const EcmpMemberList& row) const {
  for (const MemberOrGroupId memberId : row.memberIds()) {
    const GroupEntry* const member = groupEntry(memberGroupId(memberId));
    if (member == nullptr) {
      validationHelper_->throwEntryErrorException(
          row.entryHandle, ErrorCode::invalidArgument_,
          "Action profile group: " + std::to_string(row.groupId) + " member " +
              std::to_string(memberId) + " not found");
    }
  }
}

const EncapEntry& OstraEcmpGroupSm::validateNexthop(const NexthopInfo& row) const {
  traceValidateNexthop();
  const std::string memberId = std::to_string(row.memberId);
  validationHelper_->validatePortId(row.entryHandle, row.p4PortId,
                                    "Action profile member " + memberId);
  const EncapEntry* const encap = findRow(ipv4EncapTable_, row.encapId);
  if (encap == nullptr) {
    traceInvalidEncap(row.memberId, row.encapId);
    validationHelper_->throwEntryErrorException(
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
  // Buckets have no weights, but a damaged list of them is refused all the same.
  static_cast<void>(row.weights());
  if (row.memberIds().empty()) {
    traceEmptyGroup(groupId);
    return;
  }
  GroupEntry& group = cxHwConfig_->groupEntryIs(corvexId);
  group.groupTypeIs(GroupType::select_);
  group.bucketDelAll();
  copyMemberBuckets(row, group);
  announce(group);
  traceGroupAdded(corvexId, groupId);
}

void OstraEcmpGroupSm::copyMemberBuckets(const EcmpMemberList& row, GroupEntry& group) const {
  const std::span memberIds = row.memberIds();
  group.bucketReserve(memberIds.size());
  for (std::size_t at = 0; at < memberIds.size(); ++at) {
    const MemberIndex index{static_cast<long long>(at)};
    const GroupId memberId = memberGroupId(memberIds[index.value()]);
    const GroupEntry* const cxEntry = groupEntry(memberId);
    Korm::assertTrue(cxEntry != nullptr && cxEntry->buckets() == 1, "cxEntry->buckets() == 1");
    group.bucketEnq(cxEntry->bucket().front());
    traceBucket(memberId, group.id());
  }
}

void OstraEcmpGroupSm::deleteEcmpGroup(MemberOrGroupId groupId) {
  const GroupId corvexId = ecmpGroupId(groupId);
  if (cxHwConfig_ && cxHwConfig_->groupEntryDel(corvexId)) {
    traceCorvexGroupGone(corvexId);
  }
  traceGroupGone(groupId);
  if (p4HandleMgr_) {
    acknowledgeDelete(P4Runtime::P4HandleMgr::groupHandleToEntryHandle(
        p4HandleMgr_->getGroupHandleFromGroupId(groupId)));
  }
}

void OstraEcmpGroupSm::handleNexthopInfoUpdate(const NexthopInfo& row) {
  const MemberOrGroupId memberId = row.memberId;
  const GroupId corvexId = memberGroupId(memberId);
  if (!canProgram(corvexId)) {
    return;
  }
  const Bucket bucket = memberBucket(row, validateNexthop(row));
  GroupEntry& group = cxHwConfig_->groupEntryIs(corvexId);
  group.groupTypeIs(GroupType::indirect_);
  group.bucketDelAll();
  group.bucketEnq(bucket);
  announce(group);
  traceMemberAdded(corvexId, memberId);
  maybeUpdateGroupOnMemberChange(memberId);
}

Bucket OstraEcmpGroupSm::memberBucket(const NexthopInfo& row, const EncapEntry& encapInfo) const {
  Bucket bucket;
  OpenFlowTable::Actions& actions = bucket.actions;
  actions.outputIntfIs(p4RtPortMappingStatus_
                           ? p4RtPortMappingStatus_->p4PortIdToIntfId(row.p4PortId)
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

// Groups that list the member keep their copy of its bucket until their own rows change.
void OstraEcmpGroupSm::handleNexthopInfoDelete(MemberOrGroupId memberId) {
  const GroupId corvexId = memberGroupId(memberId);
  if (cxHwConfig_ && cxHwConfig_->groupEntryDel(corvexId)) {
    traceCorvexMemberGone(corvexId);
  }
  traceMemberGone(memberId);
  if (p4HandleMgr_) {
    acknowledgeDelete(p4HandleMgr_->getEntryHandleFromMemberId(memberId));
  }
}

void OstraEcmpGroupSm::acknowledgeDelete(EntryHandle handle) const {
  if (batchStatus_) {
    batchStatus_->markTransactionSucceeded(handle);
  }
}

// The list is searched first: the walk has just read it, which it has not the group.
void OstraEcmpGroupSm::maybeUpdateGroupOnMemberChange(MemberOrGroupId memberId) {
  traceMemberChange(memberId);
  walk(p4rtEcmpGroupTable_, [this, memberId](const EcmpMemberList& row) {
    const std::span memberIds = row.memberIds();
    if (std::find(memberIds.begin(), memberIds.end(), memberId) != memberIds.end() &&
        groupEntry(ecmpGroupId(row.groupId)) != nullptr) {
      handleEcmpGroup(row);
    }
  });
}

const GroupEntry* OstraEcmpGroupSm::groupEntry(GroupId id) const noexcept {
  return cxHwConfig_ ? cxHwConfig_->groupEntry(id) : nullptr;
}

}  // namespace Ostra
