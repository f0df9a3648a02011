#include "p4rt/core/Arbitration.h"

#include <algorithm>

namespace P4rt {
namespace {

std::string text(const ElectionId& id) {
  return "(high " + std::to_string(id.high) + ", low " + std::to_string(id.low) + ")";
}

std::string text(const Role& role) {
  if (!role.name.empty()) {
    return "role '" + role.name + "'";
  }
  return role.id == 0 ? "the default role" : "role " + std::to_string(role.id);
}

}  // namespace

Arbitration::Outcome Arbitration::claim(StreamId stream, const Claim& claim) {
  if (RpcStatus refusal = refusalOf(stream, claim); !refusal.ok()) {
    return {.refusal = std::move(refusal), .notices = gone(stream)};
  }
  realmOf_.try_emplace(stream, claim.role);
  Realm& realm = realms_[claim.role];
  realm.streams[stream] = claim.electionId;
  if (claim.electionId && (!realm.highest || *claim.electionId >= *realm.highest)) {
    realm.highest = claim.electionId;
    return {.notices = elect(realm, stream)};
  }
  if (realm.primary == stream) {
    realm.primary.reset();
    realm.handover = false;
    return {.notices = noticeToAll(realm)};
  }
  return {.notices = {noticeTo(realm, stream)}};
}

RpcStatus Arbitration::refusalOf(StreamId stream, const Claim& claim) const {
  const auto known = realmOf_.find(stream);
  if (known == realmOf_.end()) {
    if (RpcStatus refusal = checkDevice(claim.device); !refusal.ok()) {
      return refusal;
    }
    if (realmOf_.size() >= mostStreams) {
      return {Code::resourceExhausted_,
              std::to_string(mostStreams) + " controllers are connected, no more are served"};
    }
  } else if (claim.device != device_ || claim.role != known->second) {
    return {Code::failedPrecondition_, "the stream belongs to device " + std::to_string(device_) +
                                           " and " + text(known->second) +
                                           ", open another one for others"};
  }
  if (claim.roleConfig) {
    return {Code::invalidArgument_, "no role configuration is understood here, leave it out"};
  }
  const auto realm = realms_.find(claim.role);
  if (!claim.electionId || realm == realms_.end()) {
    return {};
  }
  const auto& streams = realm->second.streams;
  const bool used = std::any_of(streams.begin(), streams.end(), [&](const auto& other) {
    return other.first != stream && other.second == claim.electionId;
  });
  return used ? RpcStatus{Code::invalidArgument_, "election id " + text(*claim.electionId) +
                                                      " is in use by another controller of " +
                                                      text(claim.role)}
              : RpcStatus{};
}

std::vector<Notice> Arbitration::elect(Realm& realm, StreamId stream) {
  if (realm.primary != stream) {
    realm.handover = realm.writes > 0;
    realm.primary = stream;
  }
  return noticeToAll(realm);
}

std::vector<Notice> Arbitration::gone(StreamId stream) {
  const auto known = realmOf_.find(stream);
  if (known == realmOf_.end()) {
    return {};
  }
  Realm& realm = realms_.at(known->second);
  realmOf_.erase(known);
  realm.streams.erase(stream);
  if (realm.primary != stream) {
    return {};
  }
  realm.primary.reset();
  realm.handover = false;
  return noticeToAll(realm);
}

RpcStatus Arbitration::checkDevice(std::uint64_t device) const {
  if (device == device_) {
    return {};
  }
  return {Code::notFound_, "there is no device " + std::to_string(device) + ", this is device " +
                               std::to_string(device_)};
}

RpcStatus Arbitration::check(std::uint64_t device, const Role& role,
                             const std::optional<ElectionId>& electionId) const {
  if (RpcStatus refusal = checkDevice(device); !refusal.ok()) {
    return refusal;
  }
  const auto found = realms_.find(role);
  if (found == realms_.end() && role != Role{}) {
    return {Code::notFound_, "no controller has asked for " + text(role)};
  }
  const auto refused = [&](const std::string& reason) {
    return RpcStatus{Code::permissionDenied_,
                     "only the primary of " + text(role) + " may write, and " + reason};
  };
  if (found == realms_.end() || !found->second.primary) {
    return refused("there is none");
  }
  const Realm& realm = found->second;
  if (!electionId) {
    return refused("the request has no election id");
  }
  if (electionId != realm.streams.at(*realm.primary)) {
    return refused("the request's election id " + text(*electionId) + " is another one");
  }
  return realm.handover ? refused("writes of the previous primary are still in progress")
                        : RpcStatus{};
}

bool Arbitration::isPrimary(StreamId stream) const {
  const auto known = realmOf_.find(stream);
  return known != realmOf_.end() && realms_.at(known->second).primary == stream;
}

std::vector<Notice> Arbitration::writeEnds(const Role& role) {
  Realm& realm = realms_.at(role);
  --realm.writes;
  if (!realm.handover || realm.writes > 0) {
    return {};
  }
  realm.handover = false;
  return {noticeTo(realm, *realm.primary)};
}

Notice Arbitration::noticeTo(const Realm& realm, StreamId stream) {
  Standing standing = Standing::noPrimary_;
  if (realm.primary) {
    standing = realm.primary == stream ? Standing::primary_ : Standing::backup_;
  }
  return {.to = stream, .standing = standing, .highest = realm.highest};
}

// The backups come first, so that each knows of the new primary before that begins to write.
std::vector<Notice> Arbitration::noticeToAll(const Realm& realm) {
  std::vector<Notice> notices;
  for (const auto& [stream, id] : realm.streams) {
    if (realm.primary != stream) {
      notices.push_back(noticeTo(realm, stream));
    }
  }
  if (realm.primary && !realm.handover) {
    notices.push_back(noticeTo(realm, *realm.primary));
  }
  return notices;
}

}  // namespace P4rt
