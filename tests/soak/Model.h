// A model of the whole switch. Of the code of the switch it uses only the plain types of matches
// and actions.
//
// Thread and process rule: a value.
#pragma once

#include "tests/soak/Library.h"

namespace Soak {

struct Model : Library {
  Handle lastHandle = 0;
  std::size_t writes = 0;  // that were played
  Lines played;            // the lines of the last command
  Lines out;
  Handle about = 0;                  // the row that the step is about
  std::map<Handle, Handle> renamed;  // from the first history's to this one's

  // Plays a command or the writes of a batch, and returns what ostra-sim --json prints of it.
  Lines play(Command& command) {
    played = command.isBracketed ? Lines{"begin"} : Lines{};
    now += static_cast<double>(command.steps.size() + (command.isBracketed ? 2 : 0));
    if (command.isBatch) {
      beginBatch(running);
    }
    for (Step& step : command.steps) {
      play(step);
    }
    settle();
    if (command.isBatch) {
      writes += command.steps.size();
      for (const Update& update : finishBatch()) {
        print(update);
      }
    }
    if (command.isBracketed) {
      played.emplace_back("commit");
    }
    for (const Report& report : std::exchange(reports, {})) {
      out.push_back(R"({"type":"report","handle":)" + std::to_string(report.handle) +
                    R"(,"code":)" + std::to_string(report.code) + R"(,"message":")" +
                    report.message + "\"}");
    }
    return std::exchange(out, {});
  }
  // When inserts have been removed from the history, later rows have other handles than at first.
  void play(Step& step) {
    about = valueIn(renamed, step.about).value_or(step.about);
    played.push_back(named(step.line));
    const Handle last = lastHandle;
    step.play(*this);
    if (lastHandle != last && step.given != 0) {
      renamed[step.given] = lastHandle;
    } else if (lastHandle != last) {
      step.given = lastHandle;
    }
  }
  // The text with the handle of the step in place of '#'.
  [[nodiscard]] std::string named(std::string text) const {
    const std::size_t at = text.find('#');
    return at == std::string::npos ? text : text.replace(at, 1, std::to_string(about));
  }
  void print(const Update& update) {
    const bool ofFlow = update.kind == "flow";
    std::string line = R"({"type":"result","op":")" + std::string{update.op} + R"(","kind":")" +
                       std::string{update.kind} + "\"";
    line += ofFlow ? "" : ",\"id\":" + std::to_string(update.id);
    line += update.handle != 0 ? ",\"handle\":" + std::to_string(update.handle) : "";
    line += R"(,"state":")" + std::string{update.state} + "\"";
    line += update.state == "done" ? ",\"code\":" + std::to_string(update.code) : "";
    out.push_back(line + R"(,"message":")" + update.message + "\"}");
  }
  void error(const std::string& text) {
    out.push_back(R"({"type":"error","where":"soak","message":")" + text + "\"}");
  }

  void encapIs(std::uint16_t id, const std::optional<OpenFlowTable::EncapInfo>& encap) {
    if (encap) {
      encaps.at(id) = *encap;
    } else if (!encaps.erase(id)) {
      return;
    }
    if (running) {
      handleEncap(id);
    }
  }
  void damage() {
    if (books.contains(about) && books.at(about).stored) {
      damaged.insert(about);
    }
  }
  void counter() {
    const auto [packets, bytes] = counts[flowName(about)];
    out.push_back(R"({"type":"counter","handle":)" + std::to_string(about) + R"(,"packets":)" +
                  std::to_string(packets) + R"(,"bytes":)" + std::to_string(bytes) + "}");
  }

  // Writes.

  auto& tableOf(const FlowKey& key, const FlowRow& /*row*/) { return flowTables.at(key.table); }
  auto& tableOf(std::uint32_t /*id*/, const MemberRow& /*row*/) { return members; }
  auto& tableOf(std::uint32_t /*id*/, const GroupRow& /*row*/) { return groups; }

  template <class Row>
  void write(Op op, const auto& key, const Row& row) {
    constexpr bool ofFlow = std::is_same_v<Row, FlowRow>;
    auto& rows = tableOf(key, row);
    auto* const stored = rows.find(key);
    Update update{.op = op, .kind = Row::kind};
    std::string name = "a flow with this key";
    if constexpr (!ofFlow) {
      update.id = key;
      name = std::string{Row::kind} + " " + std::to_string(key);
    }
    if ((stored == nullptr) != (op == insert_)) {
      update.message = stored == nullptr ? name + " is not stored"
                                         : name + " is already stored, under handle " +
                                               std::to_string(stored->handle);
      batch.push_back(update);
      return;
    }
    update.handle = stored == nullptr ? ++lastHandle : stored->handle;
    books[update.handle].ofFlow = ofFlow;
    if constexpr (ofFlow) {
      books[update.handle].key = key;
      const Handle known = valueIn(handleOf, key).value_or(update.handle);
      update.alias = live && op == delete_ && known != update.handle ? known : 0;
    }
    enter(update);
    apply([&] {
      damaged.erase(update.handle);
      if (op == delete_) {
        rows.erase(key);
      } else {
        auto& place = rows.at(key);
        place = row;
        place.handle = update.handle;
      }
      if (running) {
        hear(key, row);
      }
    });
  }

  // The library's life: "start", "start bare", "resync" or "stop".

  void lifeIs(const std::string& command) {
    const bool starts = command.starts_with("start");
    if (starts == running) {
      return error("read '" + command.substr(0, command.find(' ')) + "', expected '" +
                   (running ? "stop" : "start") + "' first: the library is " +
                   (running ? "running" : "stopped"));
    }
    if (command == "stop") {
      return forget();
    }
    enterAnnouncements();
    try {
      if (starts) {
        create();
      }
    } catch (const std::range_error& refused) {
      forget();
      return error(refused.what());
    }
    if (command != "start bare") {
      hearAll();
    }
    settle();
    for (const Update& update : finishBatch()) {
      if (update.state != "done" || update.code != 0) {
        print(update);
      }
    }
  }
  void eachStored(auto visit) {
    eachRow(members, AtDamage::goOn_, visit);
    eachRow(groups, AtDamage::goOn_, visit);
    for (auto& table : flowTables) {
      eachRow(table, AtDamage::goOn_, visit);
    }
  }
  void enterAnnouncements() {
    beginBatch(true);
    eachStored([this](const auto& key, const auto& row) {
      Update update{.op = "announce", .kind = row.kind, .handle = row.handle};
      if constexpr (std::is_integral_v<std::remove_cvref_t<decltype(key)>>) {
        update.id = key;
      }
      enter(update);
      apply([] {});
    });
  }
  void hearAll() {
    std::size_t at = 0;  // in the same order as they were entered
    eachStored([&](const auto& key, const auto& row) {
      hold(row.handle);
      Update& update = batch[at];
      update.openUnder = 0;
      update.stateIs("pending");
      current = at++;
      apply([&] { hear(key, row); });
    });
  }

  // The findings of an audit that gives the hardware no time, such as "fault row-without-flow entry
  // 7", sorted. Nothing when they depend on the order in which an audit looks.
  [[nodiscard]] std::optional<Lines> audit();
};

}  // namespace Soak
