// What outlives the process: the configurations that were set, and for every entry, member and
// group the message that made it, in the shared memory of the switch.
//
// The invariant: what is kept is what controllers have been told, or will be told next. The rows of
// the switch run ahead of it while a Write is under way, and whoever resumes brings them in line
// with it (Restoration.h). Therefore
//  - an update is kept after the hardware has taken it and before the Write is answered, one after
//    the other in their order: a process that dies leaves a first part of them, each whole;
//  - the updates of a Write that rolls back are kept together, once all of them have gone well. So
//    are a new configuration and the deletion of what it does not hold. What is kept together
//    stands in a journal first, and then each thing in its place; whoever finds the journal carries
//    it out once more;
//  - what cannot be kept, because shared memory has run out, is undone and not answered with OK.
//
//   keeper.note(change, entity, store);  // as often as there is something to be kept together
//   keeper.keepNoted();
//
// Thread and process rule: the activity thread.
// Ownership: the blobs outlive it.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "p4/v1/p4runtime.pb.h"
#include "p4rt/core/Change.h"
#include "sim/Blobs.h"

namespace P4rt {

class Keeper {
 public:
  // Of values in shared memory, so the numbers stay.
  enum class Kind : Sim::Blobs::Kind {
    format_ = 0,
    journal_ = 1,
    committed_ = 2,
    saved_ = 3,
    flow_ = 4,
    member_ = 5,
    group_ = 6,
  };
  // What is kept of an entry: the message, and the ids of its one shot in the switch (the group,
  // then the members), if it is one.
  struct Flow {
    std::vector<Id> hidden;
    p4::v1::TableEntry entry;
  };

  // Null for one that keeps nothing.
  explicit Keeper(Sim::Blobs* kept) noexcept : kept_{kept} {}

  // Notes what a change, which the entity has asked for, has made of the store.
  void note(const Change& change, const p4::v1::Entity& entity, Store& store);
  // Notes that this configuration is committed and none is saved any more.
  void noteCommitted(const p4::v1::ForwardingPipelineConfig& config);
  void noteSaved(const p4::v1::ForwardingPipelineConfig& config);
  // Keeps what has been noted. Throws: a Fault when shared memory has run out; nothing of it is
  // kept then.
  void keepNoted();
  void forgetNoted() noexcept;
  // What the change had before is lost.
  void drop(const Change& change);

  // What an earlier keeper has kept.

  // False when there is nothing. Throws std::runtime_error for what is of another format.
  bool open();
  // Begins to keep.
  void create();
  [[nodiscard]] std::optional<p4::v1::ForwardingPipelineConfig> config(Kind kind) const;
  [[nodiscard]] std::vector<std::uint64_t> ids(Kind kind) const;
  // Each is nothing for a value that is none of that kind.
  [[nodiscard]] std::optional<Flow> flow(std::uint64_t id);
  template <class Message>
  [[nodiscard]] std::optional<Message> message(Kind kind, std::uint64_t id) const {
    Message message;
    const auto value = find(kind, id);
    return value && message.ParseFromString(*value) ? std::optional{std::move(message)}
                                                    : std::nullopt;
  }
  void drop(Kind kind, std::uint64_t id);

 private:
  void note(const FlowChange& what, Sim::Op op, const p4::v1::Entity& entity, Store& store);
  void note(const MemberChange& what, Sim::Op op, const p4::v1::Entity& entity, Store& store);
  void note(const GroupChange& what, Sim::Op op, const p4::v1::Entity& entity, Store& store);
  template <class Append>
  void notePut(Kind kind, std::uint64_t id, Append append);
  void noteDelete(Kind kind, std::uint64_t id);
  // Puts and deletes what such notes say.
  void carryOut(std::string_view notes);
  // Carries out the journal, if there is one.
  void catchUp();
  [[nodiscard]] std::optional<std::string> find(Kind kind, std::uint64_t id) const;

  Sim::Blobs* const kept_;
  std::uint64_t lastFlow_ = 0;
  std::string noted_;
  std::size_t notes_ = 0;
  std::string journal_;  // that stands in shared memory and is not carried out to its end
};

}  // namespace P4rt
