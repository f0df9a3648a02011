// Inserts, modifies and deletes of N entries, on the library alone or on a whole switch.
#pragma once

#include "Ostra/FlowUtil.h"
#include "bench/Entries.h"
#include "bench/Measure.h"
#include "platform/OpenFlowTable/HwConfig.h"

namespace Bench {

// A Side is constructed from N. It has `entries`, writes all of them by insertAll(), modifyAll()
// and deleteAll(), which return the time of one, and shows its flows by corvex().

template <class Side>
void timeInsert(benchmark::State& state) {
  for (auto _ : state) {
    Side side{argument(state)};
    state.SetIterationTime(side.insertAll());
    require(side.corvex().flowEntries().size() == argument(state), "every entry has its flow");
  }
}

template <class Side>
void timeModify(benchmark::State& state) {
  for (auto _ : state) {
    Side side{argument(state)};
    side.insertAll();
    for (auto& entry : side.entries) {
      entry.actions.setDscpIs(9, true);
    }
    shuffle(side.entries, 2);
    state.SetIterationTime(side.modifyAll());
    const auto* const flow = side.corvex().flowEntry(Ostra::buildFlowName(argument(state) / 2 + 1));
    require(flow != nullptr && flow->actions().setDscp() == 9 && flow->changeCount() > 0,
            "every flow is rewritten");
  }
}

template <class Side>
void timeDelete(benchmark::State& state) {
  for (auto _ : state) {
    Side side{argument(state)};
    side.insertAll();
    shuffle(side.entries, 2);
    state.SetIterationTime(side.deleteAll());
    require(side.corvex().flowEntries().size() == 0, "every flow is gone");
  }
}

}  // namespace Bench
