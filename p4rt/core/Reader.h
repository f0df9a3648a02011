// Answers Reads from what is stored; only counters are asked of the switch.
//
// Thread and process rule: the activity thread. Made for one Read.
// Ownership: pipeline, store and service outlive it.
#pragma once

#include <functional>

#include "p4/v1/p4runtime.pb.h"
#include "p4rt/core/Pipeline.h"
#include "p4rt/core/Store.h"

namespace Sim {
class Service;
}

namespace P4rt {

// Writes an entry as it is read, without its counter.
void writeFlow(const TableInfo& table, const Ostra::OstraKey& key, const FlowEntry& flow,
               p4::v1::TableEntry& entry);

class Reader {
 public:
  using Emit = std::function<void(p4::v1::ReadResponse&&)>;

  // `emit` gets `chunk` entities at a time.
  Reader(const Pipeline& pipeline, Store& store, const Sim::Service& service, int chunk, Emit emit)
      : pipeline_{pipeline},
        store_{store},
        service_{service},
        chunk_{chunk},
        emit_{std::move(emit)} {}

  // Emits all that the filter lets through. Throws: a Fault for a filter that makes no sense.
  void read(const p4::v1::Entity& filter);
  // Emits what has gathered.
  void flush();

 private:
  void readEntries(const p4::v1::TableEntry& filter);
  void readTable(const TableInfo& table, const p4::v1::TableEntry& filter);
  void readDefault(const TableInfo& table);
  void readCounters(const p4::v1::DirectCounterEntry& filter);
  void readMembers(const p4::v1::ActionProfileMember& filter);
  void readGroups(const p4::v1::ActionProfileGroup& filter);

  void emitEntry(const TableInfo& table, const Ostra::OstraKey& key, const FlowEntry& flow,
                 bool withCounter);
  void emitCounter(const TableInfo& table, const Ostra::OstraKey& key, const FlowEntry& flow);
  void emitMember(Id id, const MemberEntry& member);
  void emitGroup(Id id, const GroupEntry& group);
  void writeCounter(const FlowEntry& flow, p4::v1::CounterData& data) const;
  p4::v1::Entity& next();

  const Pipeline& pipeline_;
  Store& store_;
  const Sim::Service& service_;
  const int chunk_;
  const Emit emit_;
  p4::v1::ReadResponse gathered_;
};

}  // namespace P4rt
