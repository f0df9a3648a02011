// The election of a primary among the controllers of each role (P4Runtime 1.4.1, 5). Only a primary
// may write.
//
// Streams are known by their ids. Each function returns the notices that the caller has to send;
// nothing is sent from here. Roles are independent of each other: each has at most one primary, and
// the highest election id that it has ever seen is remembered as long as this object lives (16.2).
//
// Threads: one at a time.
#pragma once

#include <compare>
#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "p4rt/RpcStatus.h"

namespace P4rt {

struct ElectionId {
  std::uint64_t high = 0;
  std::uint64_t low = 0;
  friend auto operator<=>(const ElectionId&, const ElectionId&) = default;
};

// A role has a name since P4Runtime 1.4, and an id before that. The default role has neither.
struct Role {
  std::string name{};
  std::uint64_t id = 0;
  friend auto operator<=>(const Role&, const Role&) = default;
};

// What a controller asks for in a MasterArbitrationUpdate.
struct Claim {
  std::uint64_t device = 0;
  Role role{};
  bool roleConfig = false;
  std::optional<ElectionId> electionId{};  // nothing: the controller stays a backup (16.2.1)
};

using StreamId = std::uint64_t;

enum class Standing : std::uint8_t {
  primary_,    // this controller is the primary
  backup_,     // another controller is the primary
  noPrimary_,  // there is no primary
};

// An answer to be sent to a controller.
struct Notice {
  StreamId to = 0;
  Standing standing = Standing::noPrimary_;
  std::optional<ElectionId> highest{};  // the highest election id ever seen in the role
  friend bool operator==(const Notice&, const Notice&) = default;
};

class Arbitration {
 public:
  // The maximum number of streams that take part.
  static constexpr std::size_t mostStreams = 128;

  explicit Arbitration(std::uint64_t device) : device_{device} {}

  struct Outcome {
    RpcStatus refusal{};            // not OK: the stream no longer takes part and has to be ended
    std::vector<Notice> notices{};  // in the order in which they have to be sent
  };
  // Handles the first or a later claim of a stream.
  Outcome claim(StreamId stream, const Claim& claim);
  // Handles the end of a stream. Does nothing when the stream does not take part.
  std::vector<Notice> gone(StreamId stream);

  // OK when a request with this device, role and election id may write now.
  [[nodiscard]] RpcStatus check(std::uint64_t device, const Role& role,
                                const std::optional<ElectionId>& electionId) const;
  // OK when this is the device. Requests that only read need no more.
  [[nodiscard]] RpcStatus checkDevice(std::uint64_t device) const;
  // Whether the stream is that of its role's primary.
  [[nodiscard]] bool isPrimary(StreamId stream) const;
  // The role of a stream.
  // Requires: the stream takes part.
  [[nodiscard]] const Role& role(StreamId stream) const { return realmOf_.at(stream); }

  // A write that check() has allowed begins, and ends. A primary that replaces another is notified,
  // and may write, only when the writes in progress in its role have ended (5.3).
  void writeBegins(const Role& role) { ++realms_.at(role).writes; }
  std::vector<Notice> writeEnds(const Role& role);

 private:
  // The state of a role.
  struct Realm {
    std::map<StreamId, std::optional<ElectionId>> streams;
    std::optional<ElectionId> highest;
    std::optional<StreamId> primary;
    bool handover = false;   // the primary waits for the writes that began before it was elected
    std::size_t writes = 0;  // in progress
  };

  [[nodiscard]] RpcStatus refusalOf(StreamId stream, const Claim& claim) const;
  static std::vector<Notice> elect(Realm& realm, StreamId stream);
  static Notice noticeTo(const Realm& realm, StreamId stream);
  static std::vector<Notice> noticeToAll(const Realm& realm);

  // Constant after construction.
  const std::uint64_t device_;

  std::map<Role, Realm> realms_;  // roles stay here after their last stream has gone
  std::map<StreamId, Role> realmOf_;
};

}  // namespace P4rt
