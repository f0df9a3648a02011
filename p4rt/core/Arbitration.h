// Who may write: the election of a primary among the controllers of each role (P4Runtime 1.4.1, 5).
//
// It knows streams by numbers, and returns who is to be told what; it sends nothing itself. Each
// role is a realm of its own, with one primary at most. A realm's highest election id ever seen is
// kept as long as the arbitration lives (16.2).
//
// Thread and process rule: a plain value without threads.
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

// Named since P4Runtime 1.4, numbered before. The default role has neither.
struct Role {
  std::string name{};
  std::uint64_t id = 0;
  friend auto operator<=>(const Role&, const Role&) = default;
};

// What a stream asks for.
struct Claim {
  std::uint64_t device = 0;
  Role role{};
  bool roleConfig = false;
  std::optional<ElectionId> electionId{};  // nothing: to be a backup in any case (16.2.1)
};

using StreamId = std::uint64_t;

enum class Standing : std::uint8_t { primary_, backup_, noPrimary_ };

struct Notice {
  StreamId to = 0;
  Standing standing = Standing::noPrimary_;  // backup_: there is a primary, another one
  std::optional<ElectionId> highest{};       // ever seen
  friend bool operator==(const Notice&, const Notice&) = default;
};

class Arbitration {
 public:
  // How many streams may take part.
  static constexpr std::size_t mostStreams = 128;

  explicit Arbitration(std::uint64_t device) : device_{device} {}

  struct Outcome {
    RpcStatus refusal{};  // unless it is ok, the stream has no part any more and is to end
    std::vector<Notice> notices{};  // in the order in which they are to be sent
  };
  // A stream's first claim, or a later one.
  Outcome claim(StreamId stream, const Claim& claim);
  // The stream has ended. One that has no part changes nothing.
  std::vector<Notice> gone(StreamId stream);

  // Whether a controller that names this role and this id may write now.
  [[nodiscard]] RpcStatus check(std::uint64_t device, const Role& role,
                                const std::optional<ElectionId>& electionId) const;
  // The part of it that anybody has to pass.
  [[nodiscard]] RpcStatus checkDevice(std::uint64_t device) const;
  // Whether that stream is its role's primary.
  [[nodiscard]] bool isPrimary(StreamId stream) const;
  // The role of a stream that takes part.
  [[nodiscard]] const Role& role(StreamId stream) const { return realmOf_.at(stream); }

  // A write that was allowed begins, and is through. A primary that takes over from another is
  // told, and may write, when the writes of its role that were under way are through (5.3).
  void writeBegins(const Role& role) { ++realms_.at(role).writes; }
  std::vector<Notice> writeEnds(const Role& role);

 private:
  struct Realm {
    std::map<StreamId, std::optional<ElectionId>> streams;
    std::optional<ElectionId> highest;
    std::optional<StreamId> primary;
    bool handover = false;   // the primary waits for writes that were under way before it
    std::size_t writes = 0;  // under way
  };

  [[nodiscard]] RpcStatus refusalOf(StreamId stream, const Claim& claim) const;
  static std::vector<Notice> elect(Realm& realm, StreamId stream);
  static Notice noticeTo(const Realm& realm, StreamId stream);
  static std::vector<Notice> noticeToAll(const Realm& realm);

  // Constant after construction.
  const std::uint64_t device_;

  std::map<Role, Realm> realms_;  // also of roles without streams
  std::map<StreamId, Role> realmOf_;
};

}  // namespace P4rt
