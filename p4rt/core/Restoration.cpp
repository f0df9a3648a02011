#include "p4rt/core/Restoration.h"

#include <algorithm>
#include <array>
#include <set>
#include <string_view>
#include <utility>

#include "p4rt/Engine.h"
#include "p4rt/core/Change.h"
#include "p4rt/core/Fault.h"
#include "p4rt/core/Planner.h"

namespace P4rt {
namespace {

using Sim::Op;
using Sim::Update;

Update modified(const Update& insert) {
  switch (insert.kind()) {
    case Sim::Kind::member_:
      return Update::member(Op::modify_, insert.member());
    case Sim::Kind::group_:
      return Update::group(Op::modify_, insert.group());
    default:
      return Update::flow(Op::modify_, insert.table(), insert.flow());
  }
}

class Restorer {
 public:
  Restorer(const Pipeline& pipeline, Keeper& keeper, Store& store, Sim::Service& service)
      : keeper_{keeper}, store_{store}, service_{service}, planner_{pipeline, store} {}

  std::vector<std::string> run() {
    // Groups use members, and entries use both.
    each(Keeper::Kind::member_, "member",
         [this](std::uint64_t id, p4::v1::Entity& entity, std::vector<Id>& /*hidden*/) {
           return fill(Keeper::Kind::member_, id, *entity.mutable_action_profile_member());
         });
    each(Keeper::Kind::group_, "group",
         [this](std::uint64_t id, p4::v1::Entity& entity, std::vector<Id>& /*hidden*/) {
           return fill(Keeper::Kind::group_, id, *entity.mutable_action_profile_group());
         });
    each(Keeper::Kind::flow_, "entry",
         [this](std::uint64_t id, p4::v1::Entity& entity, std::vector<Id>& hidden) {
           auto flow = keeper_.flow(id);
           if (flow) {
             hidden = std::move(flow->hidden);
             entity.mutable_table_entry()->Swap(&flow->entry);
           }
           return flow.has_value();
         });
    deleteOthers();
    return std::move(dropped_);
  }

 private:
  template <class Message>
  bool fill(Keeper::Kind kind, std::uint64_t id, Message& message) {
    auto found = keeper_.message<Message>(kind, id);
    if (found) {
      message.Swap(&*found);
    }
    return found.has_value();
  }

  // Restores each value of a kind. `fill` reads one into a message; false when it is damaged.
  template <class Fill>
  void each(Keeper::Kind kind, std::string_view name, Fill fill) {
    for (const std::uint64_t id : keeper_.ids(kind)) {
      p4::v1::Update update;
      update.set_type(p4::v1::Update::INSERT);
      std::vector<Id> hidden;
      try {
        if (!fill(id, *update.mutable_entity(), hidden)) {
          refuse(Code::internal_, "it cannot be read");
        }
        restoreOne(id, update, hidden);
      } catch (const Fault& fault) {
        dropped_.push_back("kept " + std::string{name} + " " + std::to_string(id) + ": " +
                           fault.message + "; it is dropped");
        keeper_.drop(kind, id);
      }
    }
  }

  void restoreOne(std::uint64_t id, const p4::v1::Update& update, const std::vector<Id>& hidden) {
    const Change change = planner_.plan(update);
    if (const auto* const what = std::get_if<FlowChange>(&change.what)) {
      FlowEntry& flow = *store_.flow(*what->table, what->key);
      if (!hiddenAre(flow, hidden)) {
        P4rt::drop(change, store_);
        refuse(Code::internal_, "its one shot is another one");
      }
      flow.kept = id;
    }
    Writes writes;
    for (const Stage stage : {Stage::newMembers_, Stage::newGroup_, Stage::main_}) {
      appendWrites(change, stage, store_, writes);
    }
    P4Runtime::EntryHandle handle;
    for (const Update& write : writes) {
      handle = writeRow(write);
    }
    handleIs(change, handle, store_);
  }

  // Gives the entry's one shot the hidden ids that were kept. False when their number is wrong.
  bool hiddenAre(FlowEntry& flow, const std::vector<Id>& hidden) {
    if (hidden.size() != (flow.oneShot ? 1 + flow.oneShot->actions.size() : 0)) {
      return false;
    }
    if (flow.oneShot) {
      auto next = hidden.begin();
      flow.oneShot->group = *next++;
      for (OneShot::Action& action : flow.oneShot->actions) {
        action.member = *next++;
      }
      store_.hiddenTaken(*std::max_element(hidden.begin(), hidden.end()));
    }
    return true;
  }

  // Writes over the row, or inserts it if it is missing.
  P4Runtime::EntryHandle writeRow(const Update& write) {
    Sim::Result result = service_.apply(modified(write)).front();
    if (result.state == Sim::State::rejected_) {
      result = service_.apply(write).front();
    }
    if (result.state != Sim::State::stored_) {
      throw ResumeError{"a " + std::string{Sim::text(write.kind())} +
                        " cannot be restored: " + result.message};
    }
    switch (write.kind()) {
      case Sim::Kind::flow_:
        flows_.insert(result.handle);
        break;
      case Sim::Kind::member_:
        members_.insert(write.member().memberId);
        break;
      case Sim::Kind::group_:
        groups_.insert(write.group().groupId);
        break;
    }
    return result.handle;
  }

  // Deletes the rows that no kept entity accounts for.
  void deleteOthers() {
    Writes writes;
    for (const Sim::TableView& table : service_.entries()) {
      for (const Sim::EntryView& entry : table.entries) {
        if (!flows_.contains(entry.handle)) {
          writes.push_back(
              Update::flow(Op::delete_, table.table, *service_.storedFlow(entry.handle)->row));
        }
      }
    }
    const Sim::ProfileView profile = service_.storedProfile();
    for (const Id id : profile.groups) {
      if (!groups_.contains(id)) {
        writes.push_back(Update::group(Op::delete_, rowOf(id, GroupEntry{})));
      }
    }
    for (const Id id : profile.members) {
      if (!members_.contains(id)) {
        P4RuntimeRouting::NexthopInfo row;
        row.memberId = id;
        writes.push_back(Update::member(Op::delete_, row));
      }
    }
    static_cast<void>(service_.apply(writes));
  }

  Keeper& keeper_;
  Store& store_;
  Sim::Service& service_;
  Planner planner_;
  std::vector<std::string> dropped_;
  // The rows that were written.
  std::set<P4Runtime::EntryHandle> flows_;
  std::set<Id> members_;
  std::set<Id> groups_;
};

}  // namespace

std::vector<std::string> restore(const Pipeline& pipeline, Keeper& keeper, Store& store,
                                 Sim::Service& service) {
  return Restorer{pipeline, keeper, store, service}.run();
}

bool storesNothing(const Sim::Service& service) {
  const Sim::ProfileView profile = service.storedProfile();
  return service.entries().empty() && profile.members.empty() && profile.groups.empty();
}

}  // namespace P4rt
