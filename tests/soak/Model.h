// What the whole switch must do, command by command: the service's tables and books, the library,
// Corvex and the hardware agent. Of their code it uses the plain types of matches and actions
// alone.
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

// Rows. One that is damaged is passed over by all who walk, until it is written again.
struct FlowRow {
  Handle handle = 0;
  bool damaged = false;
  FlowActions actions{};
};
struct MemberRow {
  Handle handle = 0;
  bool damaged = false;
  std::uint32_t port = 0;
  std::uint16_t encap = 0;
  std::uint64_t dstMac = 0, srcMac = 0;
};
struct GroupRow {
  Handle handle = 0;
  bool damaged = false;
  std::vector<std::uint32_t> members{};
};
struct Encap {
  std::uint32_t src = 0, dst = 0;
  std::uint8_t ttl = 0, dscp = 0;
};

struct CorvexFlowState {
  OpenFlowTable::Match match;
  OpenFlowTable::Actions actions;
  std::int32_t priority = 0;
  std::uint32_t priorityGroup = 0;
  std::int32_t tableType = 0;
  std::uint32_t entryId = 0;
  double changeCount = 0;
  friend bool operator==(const CorvexFlowState&, const CorvexFlowState&) = default;
};
struct CorvexGroupState {
  unsigned type = 0;
  std::vector<OpenFlowTable::Actions> buckets;
  double changeCount = 0;
  friend bool operator==(const CorvexGroupState&, const CorvexGroupState&) = default;
};
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

// The field if it is given with a mask that is not zero; otherwise null.
[[nodiscard]] const MatchField* constrained(const FlowKey& key, Field field);
[[nodiscard]] std::string flowName(Handle handle);

class Model {
 public:
  // Plays the command and returns what ostra-sim --json prints of it.
  Lines play(const Command& command);

  // Commands.

  void writeFlow(Op op, const FlowKey& key, const FlowActions& actions);
  void writeMember(Op op, std::uint32_t id, const MemberRow& row);
  void writeGroup(Op op, std::uint32_t id, const std::vector<std::uint32_t>& list);
  void portIs(std::uint32_t id, const std::string& name);  // empty: drops the mapping
  void encapIs(std::uint16_t id, const std::optional<Encap>& encap);
  void damage(Handle handle);
  void automaticIs(bool automatic);
  void runHardware() { program(); }
  void flowStatusIs(const std::string& name, std::optional<std::uint32_t> status);
  void groupStatusIs(std::uint64_t id, std::optional<std::uint32_t> status);
  void roomIs(bool ofGroups, std::optional<std::uint32_t> room);
  void count(const std::string& name, std::uint64_t packets, std::uint64_t bytes);
  void publishedIs(bool isPublished);
  void corvexFlowIs(const std::string& name);
  void corvexFlowGone(const std::string& name);
  void stop();
  void start(bool bare);
  void resync();
  void counter(Handle handle);

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
  bool running = true;
  Handle lastHandle = 0;
  std::size_t writes = 0;   // that were played
  std::size_t damaged = 0;  // rows

  [[nodiscard]] std::size_t waiting() const { return queue_.size(); }
  // "insert in 3 since 7", by handle.
  [[nodiscard]] std::map<Handle, std::string> pending() const;
  // "fault row-without-flow entry 7", sorted, with no time given to the hardware; nothing when it
  // depends on the order in which an audit looks.
  [[nodiscard]] std::optional<Lines> audit();

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
    Op op{};                  // of its last write
    double since = 0;         // the same
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
  // How far a row came on its way into Corvex.
  struct Translation {
    CorvexFlowState flow;
    bool counted = false;     // in its VRF
    bool translated = false;  // all of it
  };

  void error(const std::string& text);

  // An audit (ModelAudit.cpp).
  struct Findings {
    void add(bool isFault, const std::string& what, std::uint64_t number);
    // Of a status that may be missing.
    void hardware(const std::uint32_t* status, const std::set<std::uint32_t>& held,
                  const std::set<std::uint32_t>& underWay, const std::string& name);

    Lines found;
    std::map<Handle, bool> rows;  // whether the last write was refused
    std::size_t groupless = 0;    // damaged rows without a Corvex group
    bool decided = true;
  };
  void auditTable(SlotMap<FlowKey, FlowRow>& table, Findings& out);
  void auditRow(const FlowKey& key, const FlowRow& row, Findings& out);
  void auditGroups(Findings& out);
  void auditMember(std::uint32_t id, const MemberRow& row, const CorvexGroupState* group,
                   bool excused, Findings& out);
  void auditGroup(std::uint32_t id, const GroupRow& row, const CorvexGroupState* group,
                  bool excused, Findings& out);
  void auditHardware(Findings& out);

  // The service (ModelService.cpp).
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
  // The rows that are not damaged, up to the first that is or all.
  enum class AtDamage : bool { stop_, goOn_ };
  template <class Rows, class Visit>
  static void eachRow(Rows& rows, AtDamage atDamage, Visit visit) {
    bool ended = false;
    rows.each([&](const auto& key, auto& row) {
      ended = ended || (row.damaged && atDamage == AtDamage::stop_);
      if (!ended && !row.damaged) {
        visit(key, row);
      }
    });
  }
  template <class Visit>
  void eachStored(Visit visit);

  // The library (ModelLibrary.cpp, ModelMatch.cpp).
  void createLibrary();
  void removeStaleFlows(std::uint8_t table);
  void handleFlow(const FlowKey& key);
  void insertFlow(const FlowKey& key, const FlowRow& row);
  void deleteFlow(const FlowKey& key);
  static void checkPort(Handle handle, std::uint32_t port, const std::string& what);
  [[nodiscard]] Interface::IntfId interfaceOf(std::uint32_t port) const;
  [[nodiscard]] OpenFlowTable::Match buildMatch(const FlowKey& key, Handle handle) const;
  // `live`: the row is counted in its VRF, and its key mapped to its handle.
  void translate(const FlowKey& key, const FlowRow& row, Translation& out, bool live);
  void buildActions(const FlowKey& key, const FlowRow& row, Translation& out, bool live);
  void changeVrf(const FlowKey& key, std::optional<std::uint32_t> vrf, Handle handle);
  [[nodiscard]] bool groupReady(std::uint64_t id) const;
  void handleMember(std::uint32_t id);
  [[nodiscard]] OpenFlowTable::Actions bucketOf(std::uint32_t id, const MemberRow& row) const;
  void handleGroup(std::uint32_t id);
  // Throws if one of the members is not in Corvex.
  [[nodiscard]] std::vector<OpenFlowTable::Actions> bucketsOf(std::uint32_t id,
                                                              const GroupRow& row) const;
  void handleEncap(std::uint16_t id);
  void processGroup(std::uint64_t corvexId, auto step);
  void reporting(auto step);
  void flowReported(const std::string& name);
  void groupReported(std::uint64_t id);
  [[nodiscard]] bool watching() const { return running && published; }

  // Corvex and the hardware (ModelHardware.cpp).
  void configureFlow(const std::string& name, const CorvexFlowState& flow);
  bool removeFlow(const std::string& name);
  void configureGroup(std::uint64_t id, CorvexGroupState group);
  void removeGroup(std::uint64_t id);
  void enqueue(const std::string& flow, std::uint64_t group);
  void settle();
  void program();
  void programFlow(const std::string& name);
  void programGroup(std::uint64_t id);
  void publishFlow(const std::string& name, std::uint32_t status);
  void publishGroup(std::uint64_t id, std::uint32_t status);
  bool withdrawFlow(const std::string& name);
  void answerDelete(const std::string& name);

  // A flow by name, or a group by id.
  using Waiting = std::pair<std::string, std::uint64_t>;

  Lines out_;
  double now_ = 0;
  double startedAt_ = 0;  // the library
  std::map<std::uint32_t, std::string> ports_;
  SlotMap<std::uint16_t, Encap> encaps_;
  std::set<FlowKey> refusedFlows_;  // whose last write was refused
  std::set<std::uint64_t> refusedGroups_;

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
  std::map<std::string, std::pair<std::uint64_t, std::uint64_t>> counts_;
};

}  // namespace Soak
