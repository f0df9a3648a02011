// The service: its tables, its books of what waits for a result, and what it tells a controller.
#include <algorithm>

#include "tests/soak/Model.h"

namespace Soak {
namespace {

constexpr unsigned invalidArgument = 15;

bool isEntryError(unsigned code, const std::string& message) {
  return code != 0 && !message.empty();
}

}  // namespace

Lines Model::play(const Command& command) {
  now_ += static_cast<double>(lines(command).size());
  if (command.isBatch) {
    beginBatch(running);
  }
  for (const Step& step : command.steps) {
    step.play(*this);
  }
  settle();
  if (command.isBatch) {
    writes += command.steps.size();
    for (const Update& update : finishBatch()) {
      print(update);
    }
  }
  for (const Report& report : std::exchange(reports_, {})) {
    out_.push_back(R"({"type":"report","handle":)" + std::to_string(report.handle) + R"(,"code":)" +
                   std::to_string(report.code) + R"(,"message":")" + report.message + "\"}");
  }
  return std::exchange(out_, {});
}

void Model::error(const std::string& text) {
  out_.push_back(R"({"type":"error","where":"soak","message":")" + text + "\"}");
}

void Model::print(const Update& update) {
  constexpr std::array<const char*, 3> kinds{"flow", "member", "group"};
  constexpr std::array<const char*, 5> states{"done", "pending", "rejected", "failed", "stored"};
  std::string line = R"({"type":"result","op":")" + text(update.op) + R"(","kind":")" +
                     kinds.at(static_cast<std::size_t>(update.kind)) + "\"";
  line += update.kind != Kind::flow_ ? ",\"id\":" + std::to_string(update.id) : "";
  line += update.handle != 0 ? ",\"handle\":" + std::to_string(update.handle) : "";
  line += R"(,"state":")" + std::string{states.at(static_cast<std::size_t>(update.state))} + "\"";
  line += update.state == State::done_ ? ",\"code\":" + std::to_string(update.code) : "";
  out_.push_back(line + R"(,"message":")" + update.message + "\"}");
}

// The switch's own configuration.

void Model::portIs(std::uint32_t id, const std::string& name) {
  if (name.empty()) {
    ports_.erase(id);
  } else {
    ports_[id] = name;
  }
}

void Model::encapIs(std::uint16_t id, const std::optional<Encap>& encap) {
  if (encap) {
    encaps_.at(id) = *encap;
  } else if (!encaps_.erase(id)) {
    return;
  }
  if (running) {
    handleEncap(id);
  }
}

void Model::damage(Handle handle) {
  const auto look = [&](const auto& /*key*/, auto& row) {
    damaged += row.handle == handle && !row.damaged ? 1 : 0;
    row.damaged = row.damaged || row.handle == handle;
  };
  members.each(look);
  groups.each(look);
  for (auto& table : flowTables) {
    table.each(look);
  }
}

// Writes.

template <class Rows, class Key, class Store, class Heard>
void Model::writeRow(Rows& rows, const Key& key, Update update, const std::string& name,
                     Store store, Heard heard) {
  auto* const stored = rows.find(key);
  if ((stored == nullptr) != (update.op == Op::insert_)) {
    update.state = State::rejected_;
    update.message = stored == nullptr ? name + " is not stored"
                                       : name + " is already stored, under handle " +
                                             std::to_string(stored->handle);
    batch_.push_back(update);
    return;
  }
  update.handle = stored == nullptr ? ++lastHandle : stored->handle;
  if (stored == nullptr) {
    books_[update.handle].kind = update.kind;
    if constexpr (std::is_same_v<Key, FlowKey>) {
      books_[update.handle].key = key;
    }
  }
  Handle alias = 0;
  if constexpr (std::is_same_v<Key, FlowKey>) {
    const auto known = handleOf.find(key);
    if (update.op == Op::delete_ && known != handleOf.end() && known->second != update.handle) {
      alias = known->second;
    }
  }
  enter(update, alias);
  apply([&] {
    damaged -= stored != nullptr && stored->damaged ? 1 : 0;
    if (update.op == Op::delete_) {
      rows.erase(key);
    } else {
      auto& row = rows.at(key);
      store(row);
      row.handle = update.handle;
      row.damaged = false;
    }
    if (running) {
      heard();
    }
  });
}

void Model::writeFlow(Op op, const FlowKey& key, const FlowActions& actions) {
  writeRow(
      flowTables.at(key.table), key, {.op = op, .kind = Kind::flow_}, "a flow with this key",
      [&](FlowRow& row) { row.actions = actions; }, [&] { handleFlow(key); });
}

void Model::writeMember(Op op, std::uint32_t id, const MemberRow& given) {
  writeRow(
      members, id, {.op = op, .kind = Kind::member_, .id = id}, "member " + std::to_string(id),
      [&](MemberRow& row) { row = given; }, [&] { handleMember(id); });
}

void Model::writeGroup(Op op, std::uint32_t id, const std::vector<std::uint32_t>& list) {
  writeRow(
      groups, id, {.op = op, .kind = Kind::group_, .id = id}, "group " + std::to_string(id),
      [&](GroupRow& row) { row.members = list; }, [&] { handleGroup(id); });
}

// The books.

void Model::beginBatch(bool live) {
  ++batchNumber_;
  batchActive_ = true;
  live_ = live;
}

Model::Book& Model::hold(Handle handle) {
  Book& book = books_[handle];
  book.batch = batchNumber_;
  book.statusOpen = true;
  if (book.kind != Kind::flow_) {
    book.statusCode = 0;
    book.statusMessage.clear();
  }
  return book;
}

void Model::enter(const Update& update, Handle alias) {
  batch_.push_back(update);
  current_ = batch_.size() - 1;
  batch_.back().state = live_ ? State::pending_ : State::stored_;
  if (update.op != Op::announce_) {
    books_.at(update.handle).op = update.op;
    books_.at(update.handle).since = now_;
  }
  if (!live_) {
    return;
  }
  currentAlias_ = alias;
  Book& book = hold(update.handle);
  if (alias != 0) {
    if (!books_.contains(alias)) {
      Book& known = books_[alias];
      known.key = book.key;
      known.stored = false;
    }
    Book& known = hold(alias);
    known.op = update.op;
    known.since = now_;
    aliases_.push_back(alias);
  }
}

template <class Change>
void Model::apply(Change change) {
  try {
    change();
    leave(std::nullopt);
  } catch (const RangeError& refused) {
    leave(refused);
  }
}

void Model::leave(const std::optional<RangeError>& failure) {
  Update& update = batch_[*current_];
  if (failure) {
    update.state = State::failed_;
    update.message = failure->text;
  } else if (update.state == State::pending_) {
    update.openUnder = currentAlias_ != 0 ? currentAlias_ : update.handle;
  }
  if (update.op == Op::delete_) {
    books_.at(update.handle).stored = false;
    if (!live_) {
      dropEntry(update.handle);
    }
  }
  current_.reset();
  currentAlias_ = 0;
}

// A result completes the update that is being applied, if it is for its entry; otherwise all that
// wait under its handle; otherwise the delete that is being applied, of which the library has said
// under which handle it knew the key. Any other is a report.
void Model::result(Handle handle, unsigned code, const std::string& message) {
  const auto found = books_.find(handle);
  Book* const book = found == books_.end() ? nullptr : &found->second;
  if (book != nullptr && book->statusOpen && book->kind != Kind::flow_) {
    book->statusCode = code;
    book->statusMessage = message;
  }
  const bool currentWaits = current_ && batch_[*current_].state == State::pending_;
  if (currentWaits && batch_[*current_].handle == handle) {
    return complete(batch_[*current_], code, message);
  }
  const bool held = book != nullptr && batchActive_ && book->batch == batchNumber_;
  bool completed = false;
  for (Update& update : batch_) {
    if (held && update.openUnder == handle) {
      complete(update, code, message);
      completed = true;
    }
  }
  if (completed) {
    book->pending = book->pending && isEntryError(code, message);
  } else if (currentWaits && batch_[*current_].op == Op::delete_ && code == 0) {
    complete(batch_[*current_], code, message);
  } else if ((!held || book->pending) && handle != 0) {
    lateResult(book, handle, code, message);
  }
}

void Model::complete(Update& update, unsigned code, const std::string& message) {
  update.state = State::done_;
  update.code = code;
  update.message = message;
  update.openUnder = 0;
  if (update.kind != Kind::flow_) {
    books_.at(update.handle).statusCode = 0;
    books_.at(update.handle).statusMessage.clear();
  }
}

void Model::lateResult(Book* book, Handle handle, unsigned code, const std::string& message) {
  const Report report{handle, code, message};
  if (reports_.empty() || reports_.back() != report) {
    reports_.push_back(report);
  }
  if (book == nullptr) {
    return;
  }
  if (book->kind == Kind::flow_ && book->stored) {
    statusRows[book->key] = {handle, code, false, ++generation_};
  }
  if (book->pending && !isEntryError(code, message)) {
    book->pending = false;
    if (!batchActive_ || book->batch != batchNumber_) {
      settleEntry(handle, {});
    }
  }
}

std::vector<Model::Update> Model::finishBatch() {
  if (live_) {
    std::set<Handle> open;  // under which something still waits
    std::map<Handle, std::size_t> last;
    for (std::size_t at = 0; at < batch_.size(); ++at) {
      open.insert(batch_[at].openUnder);
      last[batch_[at].handle] = at;
    }
    for (std::size_t at = 0; at < batch_.size(); ++at) {
      const Handle handle = batch_[at].handle;
      if (batch_[at].state != State::rejected_ && books_.contains(handle)) {
        decide(batch_[at]);
        if (last[handle] == at) {
          settleEntry(handle, open);
        }
      }
    }
    for (const Handle alias : std::exchange(aliases_, {})) {
      if (books_.contains(alias)) {
        settleEntry(alias, open);
      }
    }
  }
  batchActive_ = false;
  return std::exchange(batch_, {});
}

void Model::decide(Update& update) {
  const Book& book = books_.at(update.handle);
  if (update.state == State::pending_ && book.kind != Kind::flow_ && update.op != Op::delete_) {
    update.state = State::done_;
    update.code = book.statusCode;
    update.message = book.statusMessage;
  }
  if (book.kind == Kind::flow_ && book.stored) {
    if (update.state == State::done_) {
      statusRows[book.key] = {update.handle, update.code, false, ++generation_};
    } else if (update.state == State::failed_) {
      statusRows[book.key] = {update.handle, invalidArgument, false, ++generation_};
    }
  }
}

void Model::settleEntry(Handle handle, const std::set<Handle>& open) {
  Book& book = books_.at(handle);
  book.pending = book.pending || (book.kind == Kind::flow_ && open.contains(handle));
  if (book.pending) {
    const auto row = statusRows.find(book.key);
    if (!book.stored && row != statusRows.end() && row->second.handle == handle &&
        !row->second.deleted) {
      row->second.deleted = true;
      row->second.generation = ++generation_;
    }
    return;
  }
  book.statusOpen = false;
  clearVrfRecords(handle);
  if (!book.stored) {
    dropEntry(handle);
  }
}

void Model::dropEntry(Handle handle) {
  const Book& book = books_.at(handle);
  const auto row = statusRows.find(book.key);
  if (book.kind == Kind::flow_ && row != statusRows.end() && row->second.handle == handle) {
    statusRows.erase(row);
  }
  books_.erase(handle);
}

void Model::clearVrfRecords(Handle handle) {
  for (auto vrf = vrfs.begin(); vrf != vrfs.end();) {
    VrfState& state = vrf->second;
    const bool recorded = state.creator == handle || state.deletor == handle;
    state.creator = state.creator == handle ? 0 : state.creator;
    state.deletor = state.deletor == handle ? 0 : state.deletor;
    vrf = recorded && state == VrfState{} ? vrfs.erase(vrf) : std::next(vrf);
  }
}

std::map<Handle, std::string> Model::pending() const {
  std::map<Handle, std::string> all;
  for (const auto& [handle, book] : books_) {
    if (book.pending) {
      all[handle] = text(book.op) + " in " + std::to_string(book.key.table) + " since " +
                    std::to_string(book.since);
    }
  }
  return all;
}

void Model::forget() {
  batchActive_ = false;
  current_.reset();
  currentAlias_ = 0;
  batch_.clear();
  aliases_.clear();
  std::vector<Handle> gone;
  for (auto& [handle, book] : books_) {
    book.pending = false;
    book.statusOpen = false;
    if (!book.stored) {
      gone.push_back(handle);
    }
  }
  std::for_each(gone.begin(), gone.end(), [this](Handle handle) { dropEntry(handle); });
  vrfs.clear();
  running = false;
  handleOf.clear();
  vrfOf.clear();
  dependents.clear();
  refusedFlows_.clear();
  refusedGroups_.clear();
}

// The library's life.

void Model::stop() {
  if (!running) {
    return error("read 'stop', expected 'start' first: the library is stopped");
  }
  forget();
}

void Model::start(bool bare) {
  if (running) {
    return error("read 'start', expected 'stop' first: the library is running");
  }
  beginBatch(true);
  enterAnnouncements();
  try {
    createLibrary();
  } catch (const RangeError& refused) {
    forget();
    return error(refused.text);
  }
  if (!bare) {
    announce();
  }
  settle();
  finishAnnouncement();
}

void Model::resync() {
  if (!running) {
    return error("read 'resync', expected 'start' first: the library is stopped");
  }
  beginBatch(true);
  enterAnnouncements();
  announce();
  settle();
  finishAnnouncement();
}

// Calls visit(kind, handle, id, heard) with what the library does when it hears of the row.
template <class Visit>
void Model::eachStored(Visit visit) {
  eachRow(members, AtDamage::goOn_, [&](std::uint32_t id, const MemberRow& row) {
    visit(Kind::member_, row.handle, id, [=, this] { handleMember(id); });
  });
  eachRow(groups, AtDamage::goOn_, [&](std::uint32_t id, const GroupRow& row) {
    visit(Kind::group_, row.handle, id, [=, this] { handleGroup(id); });
  });
  for (auto& table : flowTables) {
    eachRow(table, AtDamage::goOn_, [&](const FlowKey& key, const FlowRow& row) {
      visit(Kind::flow_, row.handle, 0U, [&] { handleFlow(key); });
    });
  }
}

void Model::enterAnnouncements() {
  eachStored([this](Kind kind, Handle handle, std::uint32_t id, auto /*heard*/) {
    enter({.op = Op::announce_, .kind = kind, .handle = handle, .id = id});
    leave(std::nullopt);
  });
}

void Model::announce() {
  std::size_t at = 0;  // in the same order as they were entered
  eachStored([&](Kind /*kind*/, Handle handle, std::uint32_t /*id*/, auto heard) {
    hold(handle);
    Update& update = batch_[at];
    update.openUnder = 0;
    update.state = State::pending_;
    update.code = 0;
    update.message.clear();
    current_ = at++;
    apply(heard);
  });
}

void Model::finishAnnouncement() {
  for (const Update& update : finishBatch()) {
    if (update.state != State::done_ || update.code != 0) {
      print(update);
    }
  }
}

}  // namespace Soak
