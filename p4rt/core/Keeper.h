// Keeps in shared memory what has to survive the process: the committed and the saved pipeline
// configuration, and for each entry, member and group the P4Runtime message that describes it.
//
// Invariant: what is kept is what controllers have been told, or will be told next. While a Write
// is in progress the rows of the switch are ahead of it; a process that resumes makes them match
// it again (Restoration.h). Therefore:
// - An update is kept after the hardware has accepted it and before the Write is answered, one by
//   one in order. A process that dies leaves a prefix of the updates, each of them complete.
// - The updates of a Write with ROLLBACK_ON_ERROR are kept together, after all have succeeded. So
//   are a new configuration and the deletion of the entities that it does not retain. What is kept
//   together is first written to a journal, then to its place. A process that finds a journal
//   carries it out again.
// - An update that cannot be kept, because shared memory is full, is undone and fails.
//
//   keeper.note(change, entity, store);  // for each change that is to be kept together
//   keeper.keepNoted();
//
// Threads: the activity thread.
// Ownership: the blobs outlive the keeper.
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
  // The kinds of values in shared memory. The numbers never change.
  enum class Kind : Sim::Blobs::Kind {
    format_ = 0,
    journal_ = 1,
    committed_ = 2,
    saved_ = 3,
    flow_ = 4,
    member_ = 5,
    group_ = 6,
  };
  // What is kept of a table entry: the message and, for a one shot, the hidden ids of its group and
  // then of its members.
  struct Flow {
    std::vector<Id> hidden;
    p4::v1::TableEntry entry;
  };

  // With null nothing is kept. Only note(), noteCommitted(), noteSaved(), keepNoted(),
  // forgetNoted() and drop(change) may then be called; they do nothing.
  explicit Keeper(Sim::Blobs* kept) noexcept : kept_{kept} {}

  // Notes the entity as the change has left it in the store. `entity` is that of the update.
  void note(const Change& change, const p4::v1::Entity& entity, Store& store);
  // Notes that this configuration is committed, and that no configuration is saved any more.
  void noteCommitted(const p4::v1::ForwardingPipelineConfig& config);
  void noteSaved(const p4::v1::ForwardingPipelineConfig& config);
  // Keeps everything noted since the last call, atomically.
  // Throws: Fault when shared memory is full. Then nothing of it is kept.
  void keepNoted();
  void forgetNoted() noexcept;
  // Removes the entry as it was before the change, because it could not be restored.
  void drop(const Change& change);

  // What an earlier process has kept.

  // Completes an unfinished journal. False when nothing is kept.
  // Throws: std::runtime_error when the format is of another version or shared memory is full.
  bool open();
  // Starts keeping in empty shared memory.
  void create();
  [[nodiscard]] std::optional<p4::v1::ForwardingPipelineConfig> config(Kind kind) const;
  [[nodiscard]] std::vector<std::uint64_t> ids(Kind kind) const;
  // These return nothing when the value is missing or cannot be parsed.
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
  // Writes and deletes values as the notes say.
  void carryOut(std::string_view notes);
  // Carries out the journal, if there is one, and deletes it.
  void catchUp();
  [[nodiscard]] std::optional<std::string> find(Kind kind, std::uint64_t id) const;

  Sim::Blobs* const kept_;
  std::uint64_t lastFlow_ = 0;  // the last number assigned to a table entry
  std::string noted_;           // the notes, each a head and its bytes
  std::size_t notes_ = 0;
  std::string journal_;  // a copy of the journal in shared memory; empty when there is none
};

}  // namespace P4rt
