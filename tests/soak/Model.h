// What the whole switch must do, command by command: the service's tables and books, the library, Corvex and
// the hardware agent. Of their code it uses the plain types of matches and actions alone.
//
// Thread and process rule: a value.
#pragma once

#include <map>
#include <set>

#include "platform/OpenFlowTable/Actions.h"
#include "platform/OpenFlowTable/Match.h"
#include "tests/soak/Commands.h"
#include "tests/soak/SlotMap.h"

namespace Soak {

inline constexpr std::uint32_t noVrf = 0xFFFFFF;
inline constexpr std::uint64_t memberBase = 1ULL << 32U;

struct FlowRow {
  Handle handle = 0;
  FlowActions actions;
};
struct MemberRow {
  Handle handle = 0;
  MemberWrite write;
};
struct GroupRow {
  Handle handle = 0;
  std::vector<std::uint32_t> members;
};

struct CorvexFlowState {
  OpenFlowTable::Match match;
  OpenFlowTable::Actions actions;
  std::int32_t priority = 0;
  std::uint32_t priorityGroup = 0;
  std::int32_t tableType = 0;
  std::uint32_t entryId = 0;
  double changeCount = 0;
};
struct CorvexGroupState {
  unsigned type = 0;
  std::vector<OpenFlowTable::Actions> buckets;
  double changeCount = 0;
};
struct VrfState {
  std::optional<std::uint32_t> users;
  std::optional<Handle> creator, deletor;
};
struct StatusRow {
  Handle handle = 0;
  std::uint32_t code = 0;
  bool deleted = false;
  std::uint64_t generation = 0;
  friend bool operator==(const StatusRow&, const StatusRow&) = default;
};

// The field if it is given with a mask that is not zero; otherwise null.
[[nodiscard]] const MatchField* constrained(const FlowKey& key, Field field);

class Model {
 public:
  // As ostra-sim at launch: the library running, nothing stored.
  Model();

  // Plays the command and returns what ostra-sim --json prints of it.
  Lines play(const Command& command);

  // What there is to see.

  std::array<SlotMap<FlowKey, FlowRow>, 15> flowTables;
  SlotMap<std::uint32_t, MemberRow> members;
  SlotMap<std::uint32_t, GroupRow> groups;
  SlotMap<std::string, CorvexFlowState> corvexFlows;
  std::map<std::uint64_t, CorvexGroupState> corvexGroups;
  std::map<FlowKey, Handle> handleOf;      // the library's index
  std::map<FlowKey, std::uint32_t> vrfOf;  // the same
  std::map<Handle, std::uint32_t> dependents;
  std::map<std::uint32_t, VrfState> vrfs;
  std::map<FlowKey, StatusRow> statusRows;
  SlotMap<std::string, std::uint32_t> flowStatus;
  SlotMap<std::uint64_t, std::uint32_t> groupStatus;
  bool published = true;
  bool running = false;
  Handle lastHandle = 0;
  std::size_t writes = 0;  // that were played

  [[nodiscard]] std::size_t waiting() const { return queue_.size(); }

 private:
  enum class Kind : std::uint8_t { flow_, member_, group_ };
  enum class State : std::uint8_t { done_, pending_, rejected_, failed_, stored_ };
  struct EntryError {
    Handle handle;
    unsigned code;
    std::string message;
  };
  struct RangeError {
    std::string text;
  };

  struct Update {
    Op op{};
    Kind kind{};
    State state{};
    unsigned code = 0;
    Handle handle = 0;
    std::uint32_t id = 0;
    std::string message{};
    Handle openUnder = 0;  // the entry whose result it waits for once it is applied
  };
  // What the service remembers of an entry.
  struct Book {
    Kind kind = Kind::flow_;
    FlowKey key;
    std::uint64_t batch = 0;  // the last that held it
    bool stored = true;
    bool pending = false;  // an earlier batch waits for its result
    bool statusOpen = false;
    unsigned statusCode = 0;
    std::string statusMessage;
  };
  struct Report {
    Handle handle;
    unsigned code;
    std::string message;
    friend bool operator==(const Report&, const Report&) = default;
  };

  // Commands.
  void perform(const Batch& batch);
  void perform(const PortIs& port);
  void perform(const EncapIs& encap);
  void perform(const HwMode& mode);
  void perform(const HwRun& run);
  void perform(const HwFlow& flow);
  void perform(const HwGroup& group);
  void perform(const HwCapacity& capacity);
  void perform(const HwCount& count);
  void perform(const HwPublish& publish);
  void perform(const CorvexFlow& flow);
  void perform(const Stop& stop);
  void perform(const Start& start);
  void perform(const Resync& resync);
  void perform(const Counter& counter);
  void error(const std::string& text);

  // The service (ModelService.cpp).
  void write(const FlowWrite& write);
  void write(const MemberWrite& write);
  void write(const GroupWrite& write);
  template <class Rows, class Key, class Store, class Heard>
  void writeRow(Rows& rows, const Key& key, Update update, const std::string& name, Store store,
                Heard heard);
  void beginBatch(bool live);
  void enter(const Update& update, Handle alias = 0);
  void leave(const std::optional<RangeError>& failure);
  template <class Change>
  void apply(Change change);
  std::vector<Update> finishBatch();
  void decide(Update& update);
  Book& hold(Handle handle);
  void settleEntry(Handle handle, const std::set<Handle>& open);
  void dropEntry(Handle handle);
  void clearVrfRecords(Handle handle);
  void forget();
  void enterAnnouncements();
  void announce();
  void finishAnnouncement();
  void result(Handle handle, unsigned code, const std::string& message);
  void complete(Update& update, unsigned code, const std::string& message);
  void lateResult(Book* book, Handle handle, unsigned code, const std::string& message);
  void print(const Update& update);

  // The library (ModelLibrary.cpp, ModelMatch.cpp).
  void createLibrary();
  void removeStaleFlows(std::uint8_t table);
  void handleFlow(const FlowKey& key);
  void insertFlow(const FlowKey& key, const FlowRow& row);
  void deleteFlow(const FlowKey& key);
  static void checkPort(Handle handle, std::uint32_t port, const std::string& what);
  OpenFlowTable::Match buildMatch(const FlowKey& key, Handle handle) const;
  OpenFlowTable::Actions buildActions(const FlowKey& key, const FlowRow& row);
  void changeVrf(const FlowKey& key, std::optional<std::uint32_t> vrf, Handle handle);
  [[nodiscard]] bool groupReady(std::uint64_t id) const;
  void handleMember(std::uint32_t id);
  void updateMember(const MemberRow& row);
  void handleGroup(std::uint32_t id);
  void updateGroup(std::uint32_t id, const GroupRow& row);
  void handleEncap(std::uint16_t id);
  template <class Step>
  void reporting(Step step);
  void flowReported(const std::string& name);
  void groupReported(std::uint64_t id);
  [[nodiscard]] bool watching() const { return running && published; }

  // Corvex and the hardware (ModelHardware.cpp).
  void corvexFlowIs(const std::string& name, const CorvexFlowState& flow);
  bool corvexFlowDel(const std::string& name);
  void corvexGroupIs(std::uint64_t id, CorvexGroupState group);
  bool corvexGroupDel(std::uint64_t id);
  void enqueue(bool isGroup, const std::string& flow, std::uint64_t group);
  void settle();
  void program();
  void programFlow(const std::string& name);
  void programGroup(std::uint64_t id);
  void publishFlow(const std::string& name, std::uint32_t status);
  void publishGroup(std::uint64_t id, std::uint32_t status);
  bool withdrawFlow(const std::string& name);
  void answerDelete(const std::string& name);

  struct Waiting {
    bool isGroup;
    std::string flow;
    std::uint64_t group;
    friend bool operator==(const Waiting&, const Waiting&) = default;
  };

  Lines out_;
  double now_ = 0;
  std::map<std::uint32_t, std::string> ports_;
  SlotMap<std::uint16_t, EncapIs> encaps_;

  std::map<Handle, Book> books_;
  std::vector<Update> batch_;
  std::uint64_t batchNumber_ = 0;
  bool batchActive_ = false;
  bool live_ = false;
  std::optional<std::size_t> current_;
  std::vector<Handle> aliases_;
  Handle currentAlias_ = 0;
  std::vector<Report> reports_;
  std::uint64_t generation_ = 0;

  bool automatic_ = true;
  std::vector<Waiting> queue_;
  std::vector<std::string> unanswered_;
  std::optional<std::uint32_t> flowRoom_, groupRoom_;
  std::map<std::string, std::map<std::string, std::pair<std::uint64_t, std::uint64_t>>> counts_;
};

}  // namespace Soak
