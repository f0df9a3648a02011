#include "p4rt/core/Keeper.h"

#include <algorithm>
#include <cstring>
#include <stdexcept>
#include <utility>

#include "p4rt/core/Fault.h"
#include "p4rt/core/Reader.h"

namespace P4rt {
namespace {

constexpr std::string_view format = "P4Runtime 1";

// Precedes the bytes of each note.
struct NoteHead {
  std::uint64_t id;
  Keeper::Kind kind;
  std::uint32_t size;
};
constexpr std::uint32_t deleted = 0xFFFFFFFFU;

template <class Value>
void appendBytes(std::string& to, const Value& value) {
  to.append(reinterpret_cast<const char*>(&value), sizeof value);
}

// False when there are too few bytes.
template <class Value>
bool takeBytes(std::string_view& from, Value& value) {
  if (from.size() < sizeof value) {
    return false;
  }
  std::memcpy(&value, from.data(), sizeof value);
  from.remove_prefix(sizeof value);
  return true;
}

void appendHidden(std::string& to, const OneShot* shot) {
  appendBytes(to, static_cast<std::uint32_t>(shot == nullptr ? 0 : 1 + shot->actions.size()));
  if (shot != nullptr) {
    appendBytes(to, shot->group);
    for (const OneShot::Action& action : shot->actions) {
      appendBytes(to, action.member);
    }
  }
}

}  // namespace

template <class Append>
void Keeper::notePut(Kind kind, std::uint64_t id, Append append) {
  const std::size_t head = noted_.size();
  noted_.resize(head + sizeof(NoteHead));
  append(noted_);
  const NoteHead written{
      .id = id,
      .kind = kind,
      .size = static_cast<std::uint32_t>(noted_.size() - head - sizeof(NoteHead))};
  std::memcpy(noted_.data() + head, &written, sizeof written);
  ++notes_;
}

void Keeper::noteDelete(Kind kind, std::uint64_t id) {
  appendBytes(noted_, NoteHead{.id = id, .kind = kind, .size = deleted});
  ++notes_;
}

void Keeper::note(const Change& change, const p4::v1::Entity& entity, Store& store) {
  if (kept_ != nullptr) {
    std::visit([&](const auto& what) { note(what, change.op, entity, store); }, change.what);
  }
}

// When the notes of a whole batch are made, a later update may have changed or deleted the entity
// again. The note of that update follows and is carried out after this one.

void Keeper::note(const FlowChange& what, Sim::Op op, const p4::v1::Entity& entity, Store& store) {
  if (op == Sim::Op::delete_) {
    if (what.former->kept != 0) {
      noteDelete(Kind::flow_, what.former->kept);
    }
    return;
  }
  FlowEntry* const flow = store.flow(*what.table, what.key);
  if (flow == nullptr) {
    return;
  }
  if (flow->kept == 0) {
    flow->kept = ++lastFlow_;
  }
  notePut(Kind::flow_, flow->kept, [&](std::string& to) {
    appendHidden(to, flow->oneShot.get());
    if (entity.table_entry().has_action()) {
      entity.table_entry().AppendToString(&to);
    } else {
      p4::v1::TableEntry whole;
      writeFlow(*what.table, what.key, *flow, whole);
      whole.AppendToString(&to);
    }
  });
}

void Keeper::note(const MemberChange& what, Sim::Op op, const p4::v1::Entity& entity,
                  Store& store) {
  if (op == Sim::Op::delete_) {
    noteDelete(Kind::member_, what.id);
  } else if (store.member(what.id) != nullptr) {
    notePut(Kind::member_, what.id,
            [&](std::string& to) { entity.action_profile_member().AppendToString(&to); });
  }
}

void Keeper::note(const GroupChange& what, Sim::Op op, const p4::v1::Entity& entity, Store& store) {
  if (op == Sim::Op::delete_) {
    noteDelete(Kind::group_, what.id);
  } else if (store.group(what.id) != nullptr) {
    notePut(Kind::group_, what.id,
            [&](std::string& to) { entity.action_profile_group().AppendToString(&to); });
  }
}

void Keeper::noteCommitted(const p4::v1::ForwardingPipelineConfig& config) {
  if (kept_ != nullptr) {
    notePut(Kind::committed_, 0, [&](std::string& to) { config.AppendToString(&to); });
    noteDelete(Kind::saved_, 0);
  }
}

void Keeper::noteSaved(const p4::v1::ForwardingPipelineConfig& config) {
  if (kept_ != nullptr) {
    notePut(Kind::saved_, 0, [&](std::string& to) { config.AppendToString(&to); });
  }
}

void Keeper::keepNoted() {
  if (notes_ == 0) {
    return;
  }
  try {
    catchUp();
    if (notes_ == 1) {
      carryOut(noted_);
    } else {
      kept_->is(static_cast<Sim::Blobs::Kind>(Kind::journal_), 0, noted_);
      journal_.swap(noted_);
    }
  } catch (const std::runtime_error& full) {
    forgetNoted();
    refuse(Code::resourceExhausted_,
           std::string{"shared memory has no room to keep it: "} + full.what());
  }
  forgetNoted();
  try {
    catchUp();
  } catch (const std::runtime_error&) {  // everything is in the journal; the next call tries again
  }
}

void Keeper::forgetNoted() noexcept {
  noted_.clear();
  notes_ = 0;
}

void Keeper::catchUp() {
  if (!journal_.empty()) {
    carryOut(journal_);
    kept_->del(static_cast<Sim::Blobs::Kind>(Kind::journal_), 0);
    journal_.clear();
  }
}

void Keeper::carryOut(std::string_view notes) {
  for (NoteHead head{}; takeBytes(notes, head);) {
    const auto kind = static_cast<Sim::Blobs::Kind>(head.kind);
    if (head.size == deleted) {
      kept_->del(kind, head.id);
      continue;
    }
    kept_->is(kind, head.id, notes.substr(0, head.size));
    notes.remove_prefix(std::min<std::size_t>(head.size, notes.size()));
  }
}

void Keeper::drop(const Change& change) {
  if (kept_ == nullptr) {
    return;
  }
  try {
    catchUp();
  } catch (const std::runtime_error&) {  // the journal may bring the entry back after a restart
  }
  if (const auto* const flow = std::get_if<FlowChange>(&change.what)) {
    drop(Kind::flow_, flow->former->kept);
  }
}

bool Keeper::open() {
  const auto found = find(Kind::format_, 0);
  if (!found) {
    return false;
  }
  if (*found != format) {
    throw std::runtime_error{"what is kept is of another version"};
  }
  journal_ = find(Kind::journal_, 0).value_or("");
  catchUp();
  for (const std::uint64_t id : ids(Kind::flow_)) {
    lastFlow_ = std::max(lastFlow_, id);
  }
  return true;
}

void Keeper::create() { kept_->is(static_cast<Sim::Blobs::Kind>(Kind::format_), 0, format); }

std::optional<p4::v1::ForwardingPipelineConfig> Keeper::config(Kind kind) const {
  return message<p4::v1::ForwardingPipelineConfig>(kind, 0);
}

std::vector<std::uint64_t> Keeper::ids(Kind kind) const {
  return kept_->ids(static_cast<Sim::Blobs::Kind>(kind));
}

std::optional<std::string> Keeper::find(Kind kind, std::uint64_t id) const {
  return kept_->find(static_cast<Sim::Blobs::Kind>(kind), id);
}

void Keeper::drop(Kind kind, std::uint64_t id) {
  kept_->del(static_cast<Sim::Blobs::Kind>(kind), id);
}

std::optional<Keeper::Flow> Keeper::flow(std::uint64_t id) {
  const std::string value = find(Kind::flow_, id).value_or("");
  std::string_view rest = value;
  std::uint32_t hidden = 0;
  if (!takeBytes(rest, hidden) || hidden > rest.size() / sizeof(Id)) {
    return std::nullopt;
  }
  Flow flow{.hidden = std::vector<Id>(hidden), .entry = {}};
  for (Id& one : flow.hidden) {
    takeBytes(rest, one);
  }
  return flow.entry.ParseFromArray(rest.data(), static_cast<int>(rest.size()))
             ? std::optional{std::move(flow)}
             : std::nullopt;
}

}  // namespace P4rt
