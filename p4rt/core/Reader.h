// Answers a Read from the store. Only counters are read from the switch.
//
// Threads: the activity thread.
// Ownership: the pipeline, the store and the service outlive the reader.
#pragma once

#include <functional>

#include "p4/v1/p4runtime.pb.h"
#include "p4rt/core/Pipeline.h"
#include "p4rt/core/Store.h"

namespace Sim {
class Service;
}

namespace P4rt {

// Writes an entry into a message, without its counter.
void writeFlow(const TableInfo& table, const Ostra::OstraKey& key, const FlowEntry& flow,
               p4::v1::TableEntry& entry);

class Reader {
 public:
  using Emit = std::function<void(p4::v1::ReadResponse&&)>;

  // `emit` gets at most `chunk` entities at a time.
  Reader(const Pipeline& pipeline, Store& store, const Sim::Service& service, int chunk, Emit emit)
      : pipeline_{pipeline},
        store_{store},
        service_{service},
        chunk_{chunk},
        emit_{std::move(emit)} {}

  // Emits the entities that match the filter.
  // Throws: Fault when the filter is invalid.
  void read(const p4::v1::Entity& filter);
  // Emits the entities that are left. Call it after the last filter.
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
