// The service's record of entries that wait for a result, and what it reports to a controller.
//
// Thread and process rule: a value.
#pragma once

#include "tests/soak/Commands.h"

namespace Soak {

// The value under the key; null if there is none.
auto* valueAt(auto& map, const auto& key) {
  const auto found = map.find(key);
  return found == map.end() ? nullptr : &found->second;
}

struct VrfState {
  std::uint32_t users = 0;
  Handle creator = 0, deletor = 0;  // 0: none
  friend bool operator==(const VrfState&, const VrfState&) = default;
};
struct StatusRow {
  Handle handle = 0;
  std::uint32_t code = 0;
  bool deleted = false;
  std::uint64_t generation = 0;
  friend bool operator==(const StatusRow&, const StatusRow&) = default;
};
// A result for an entry. It is also thrown to refuse an entry.
struct Report {
  Handle handle = 0;
  unsigned code = 0;
  std::string message{};
  [[nodiscard]] bool isEntryError() const { return code != 0 && !message.empty(); }
  friend bool operator==(const Report&, const Report&) = default;
};

// A write, or the announcement of a stored row. Kind and state are the words of ostra-sim.
struct Update {
  Op op;
  std::string_view kind;
  std::uint32_t id = 0;
  Handle handle = 0;
  Handle alias = 0;  // another handle under which the library knows a deleted key; 0 for none
  std::string_view state = "rejected";
  unsigned code = 0;
  std::string message{};
  Handle openUnder = 0;  // once it is applied: the entry whose result it waits for

  void stateIs(std::string_view newState, unsigned newCode = 0, std::string newMessage = {}) {
    state = newState;
    code = newCode;
    message = std::move(newMessage);
  }
};
// What the service remembers of an entry.
struct Book {
  bool ofFlow = true;
  FlowKey key;
  Op op;                    // of its last write
  double since = 0;         // the same
  std::uint64_t batch = 0;  // the last that held it
  bool stored = true;
  bool pending = false;  // an earlier batch waits for its result
  bool statusOpen = false;
  Report status;  // of a member or a group
};

struct Books {
  std::map<std::uint32_t, VrfState> vrfs;
  std::map<FlowKey, StatusRow> statusRows;
  std::map<Handle, Book> books;
  std::vector<Update> batch;
  std::uint64_t batchNumber = 0;
  bool batchActive = false;
  bool live = false;
  std::optional<std::size_t> current;
  std::vector<Report> reports;
  std::uint64_t generation = 0;
  double now = 0;

  void beginBatch(bool isLive) {
    ++batchNumber;
    batchActive = true;
    live = isLive;
  }
  void hold(Handle handle) {
    Book& book = books[handle];
    book.batch = batchNumber;
    book.statusOpen = true;
    book.status = {};
  }
  void enter(const Update& update) {
    current = batch.size();
    batch.push_back(update);
    batch.back().state = live ? "pending" : "stored";
    if (update.alias != 0 && !books.contains(update.alias)) {
      books[update.alias].key = books.at(update.handle).key;
      books[update.alias].stored = false;
    }
    for (const Handle handle : {update.handle, update.alias}) {
      if (live && handle != 0) {
        hold(handle);
      }
      if (update.op != "announce" && handle != 0) {
        books.at(handle).op = update.op;
        books.at(handle).since = now;
      }
    }
  }
  // Makes the change of the update that was entered last.
  void apply(auto change) {
    std::optional<std::string> failure;
    try {
      change();
    } catch (const std::range_error& refused) {
      failure = refused.what();
    }
    Update& update = batch[*current];
    if (failure) {
      update.stateIs("failed", 15, *failure);
    } else if (update.state == "pending") {
      update.openUnder = update.alias != 0 ? update.alias : update.handle;
    }
    if (update.op == delete_) {
      books.at(update.handle).stored = false;
      if (!live) {
        dropEntry(update.handle);
      }
    }
    current.reset();
  }

  // A result completes, in this order: the update that is being applied, if it is for its entry;
  // all updates that wait under its handle; the delete that is being applied. Any other is a
  // report.
  void result(const Report& report) {
    Book* const book = valueAt(books, report.handle);
    if (book != nullptr && book->statusOpen) {
      book->status = report;
    }
    Update* const waiting =
        current && batch[*current].state == "pending" ? &batch[*current] : nullptr;
    if (waiting != nullptr && waiting->handle == report.handle) {
      return complete(*waiting, report);
    }
    const bool held = book != nullptr && isInBatch(*book);
    bool completed = false;
    for (Update& update : batch) {
      if (held && update.openUnder == report.handle) {
        complete(update, report);
        completed = true;
      }
    }
    if (completed) {
      book->pending = book->pending && report.isEntryError();
    } else if (waiting != nullptr && waiting->op == delete_ && report.code == 0) {
      complete(*waiting, report);
    } else if ((!held || book->pending) && report.handle != 0) {
      lateResult(book, report);
    }
  }
  [[nodiscard]] bool isInBatch(const Book& book) const {
    return batchActive && book.batch == batchNumber;
  }
  void complete(Update& update, const Report& report) {
    update.stateIs("done", report.code, report.message);
    update.openUnder = 0;
    books.at(update.handle).status = {};
  }
  void lateResult(Book* book, const Report& report) {
    if (reports.empty() || reports.back() != report) {
      reports.push_back(report);
    }
    if (book == nullptr) {
      return;
    }
    if (book->ofFlow && book->stored) {
      statusRows[book->key] = {report.handle, report.code, false, ++generation};
    }
    if (book->pending && !report.isEntryError()) {
      book->pending = false;
      if (!isInBatch(*book)) {
        settleEntry(report.handle, {});
      }
    }
  }

  std::vector<Update> finishBatch() {
    std::set<Handle> open;  // the handles under which an update still waits
    std::map<Handle, const Update*> last;
    for (const Update& update : batch) {
      open.insert(update.openUnder);
      last[update.handle] = &update;
    }
    for (Update& update : batch) {
      if (live && update.state != "rejected" && books.contains(update.handle)) {
        decide(update);
        if (last[update.handle] == &update) {
          settleEntry(update.handle, open);
        }
      }
    }
    for (const Update& update : batch) {
      if (update.alias != 0 && books.contains(update.alias)) {
        settleEntry(update.alias, open);
      }
    }
    batchActive = false;
    return std::exchange(batch, {});
  }
  void decide(Update& update) {
    const Book& book = books.at(update.handle);
    if (update.state == "pending" && !book.ofFlow && update.op != delete_) {
      update.stateIs("done", book.status.code, book.status.message);
    }
    if (book.ofFlow && book.stored && update.state != "pending") {
      statusRows[book.key] = {update.handle, update.code, false, ++generation};
    }
  }
  void settleEntry(Handle handle, const std::set<Handle>& open) {
    Book& book = books.at(handle);
    book.pending = book.pending || (book.ofFlow && open.contains(handle));
    if (book.pending) {
      StatusRow* const row = statusOf(handle);
      if (!book.stored && row != nullptr && !row->deleted) {
        row->deleted = true;
        row->generation = ++generation;
      }
      return;
    }
    book.statusOpen = false;
    clearVrfRecords(handle);
    if (!book.stored) {
      dropEntry(handle);
    }
  }
  // Null if the flow has none.
  StatusRow* statusOf(Handle handle) {
    const Book& book = books.at(handle);
    StatusRow* const row = valueAt(statusRows, book.key);
    return book.ofFlow && row != nullptr && row->handle == handle ? row : nullptr;
  }
  void dropEntry(Handle handle) {
    if (statusOf(handle) != nullptr) {
      statusRows.erase(books.at(handle).key);
    }
    books.erase(handle);
  }
  void clearVrfRecords(Handle handle) {
    for (auto& [vrf, state] : vrfs) {
      state.creator = state.creator == handle ? 0 : state.creator;
      state.deletor = state.deletor == handle ? 0 : state.deletor;
    }
    std::erase_if(vrfs, [](const auto& vrf) { return vrf.second == VrfState{}; });
  }
  // "insert in 3 since 7", by handle.
  [[nodiscard]] std::map<Handle, std::string> pending() const {
    std::map<Handle, std::string> all;
    for (const auto& [handle, book] : books) {
      if (book.pending) {
        all[handle] = std::string{book.op} + " in " + std::to_string(book.key.table) + " since " +
                      std::to_string(book.since);
      }
    }
    return all;
  }
  void forgetWaiting() {
    batchActive = false;
    current.reset();
    batch.clear();
    vrfs.clear();
    for (auto next = books.begin(); next != books.end();) {
      auto& [handle, book] = *next++;
      book.pending = false;
      book.statusOpen = false;
      if (!book.stored) {
        dropEntry(handle);
      }
    }
  }
};

}  // namespace Soak
