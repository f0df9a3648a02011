#include "cli/language/Commands.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <limits>
#include <optional>
#include <string>
#include <vector>

#include "Ostra/FlowUtil.h"
#include "cli/language/FlowParser.h"
#include "cli/language/Interpreter.h"
#include "cli/language/NearMatch.h"
#include "cli/language/ProfileParser.h"
#include "cli/language/ValueWords.h"
#include "cli/language/Values.h"
#include "platform/Brisklog/Ring.h"
#include "platform/Brisklog/RingReader.h"

namespace Cli {
namespace {

using OpenFlowTable::FlowStatus;
using OpenFlowTable::GroupStatus;

constexpr std::size_t defaultTraceLines = 50;

template <std::integral T>
T takeNumber(Words& words, std::string_view what) {
  return parseNumber<T>(words.take(what), what);
}

std::string takeName(Words& words, std::string_view what) { return std::string{words.take(what)}; }

// The controller's writes.

template <Sim::Op op>
void writeFlow(Interpreter& interpreter, Words& words) {
  const FlowWrite flow = op == Sim::Op::delete_ ? parseFlowKey(words) : parseFlow(words);
  interpreter.write(Sim::Update::flow(op, flow.table, flow.entry));
}

template <Sim::Op op>
void writeMember(Interpreter& interpreter, Words& words) {
  interpreter.write(Sim::Update::member(op, parseMember(words)));
}
void deleteMember(Interpreter& interpreter, Words& words) {
  P4RuntimeRouting::NexthopInfo member;
  member.memberId = parseProfileId(words, "a member");
  interpreter.write(Sim::Update::member(Sim::Op::delete_, member));
}

template <Sim::Op op>
void writeGroup(Interpreter& interpreter, Words& words) {
  interpreter.write(Sim::Update::group(op, parseGroup(words)));
}
void deleteGroup(Interpreter& interpreter, Words& words) {
  P4RuntimeRouting::EcmpMemberList group;
  group.groupId = parseProfileId(words, "a group");
  interpreter.write(Sim::Update::group(Sim::Op::delete_, group));
}

void begin(Interpreter& interpreter, Words& words) {
  words.end();
  interpreter.beginBatch();
}
void commit(Interpreter& interpreter, Words& words) {
  words.end();
  interpreter.commitBatch();
}

// The switch's own configuration.

void port(Interpreter& interpreter, Words& words) {
  const auto id = takeNumber<P4Runtime::P4PortId>(words, "the id of a port");
  const Interface::IntfId intf = parseInterface(words.take("the name of an interface"), "the port");
  words.end();
  interpreter.check("port", interpreter.service().portIs(id, intf));
  interpreter.tampered();
}
void noPort(Interpreter& interpreter, Words& words) {
  const auto id = takeNumber<P4Runtime::P4PortId>(words, "the id of a port");
  words.end();
  if (!interpreter.service().portDel(id)) {
    interpreter.printer().note("port " + std::to_string(id) + " was not mapped");
  }
  interpreter.tampered();
}

void encap(Interpreter& interpreter, Words& words) {
  interpreter.check("encap", interpreter.service().encapIs(parseEncap(words)));
}
void noEncap(Interpreter& interpreter, Words& words) {
  const auto id = takeNumber<NexthopGroup::EncapId>(words, "the id of an encapsulation");
  words.end();
  if (!interpreter.service().hasEncap(id)) {
    interpreter.printer().note("there was no encapsulation " + std::to_string(id));
    return;
  }
  interpreter.check("no encap", interpreter.service().encapDel(id));
}

void corvexFlow(Interpreter& interpreter, Words& words) {
  const std::string name = takeName(words, "the name of a flow");
  words.end();
  interpreter.service().corvexFlowIs(name);
  interpreter.tampered();
}
void corvexNoFlow(Interpreter& interpreter, Words& words) {
  const std::string name = takeName(words, "the name of a flow");
  words.end();
  if (!interpreter.service().corvexFlowDel(name)) {
    interpreter.printer().note("there was no Corvex flow " + quoted(name));
  }
  interpreter.tampered();
}

void damage(Interpreter& interpreter, Words& words) {
  const auto handle = takeNumber<std::uint64_t>(words, "the handle of an entry");
  words.end();
  if (!interpreter.service().rowDamaged(handle)) {
    interpreter.printer().note("there was no intact row of entry " + std::to_string(handle));
  }
  interpreter.tampered();
}

// The hardware.

template <bool automatic>
void hwMode(Interpreter& interpreter, Words& words) {
  words.end();
  interpreter.agent().automaticIs(automatic);
  interpreter.settle();
}
void hwRun(Interpreter& interpreter, Words& words) {
  words.end();
  interpreter.agent().run();
  interpreter.settle();
}
void hwFlow(Interpreter& interpreter, Words& words) {
  const std::string name = takeName(words, "the name of a flow");
  const auto status = takeNumber<std::uint32_t>(words, "a flow status");
  words.end();
  interpreter.agent().flowStatusIs(name, FlowStatus{status});
  interpreter.settle();
}
void hwGroup(Interpreter& interpreter, Words& words) {
  const auto id = takeNumber<OpenFlowTable::GroupId>(words, "the id of a Corvex group");
  const auto status = takeNumber<std::uint32_t>(words, "a group status");
  words.end();
  interpreter.agent().groupStatusIs(id, GroupStatus{status});
  interpreter.settle();
}
void hwRemoveFlow(Interpreter& interpreter, Words& words) {
  const std::string name = takeName(words, "the name of a flow");
  words.end();
  if (!interpreter.agent().flowStatusDel(name)) {
    interpreter.printer().note("the hardware published nothing for the flow " + quoted(name));
  }
  interpreter.settle();
}
void hwRemoveGroup(Interpreter& interpreter, Words& words) {
  const auto id = takeNumber<OpenFlowTable::GroupId>(words, "the id of a Corvex group");
  words.end();
  if (!interpreter.agent().groupStatusDel(id)) {
    interpreter.printer().note("the hardware published nothing for the group " +
                               std::to_string(id));
  }
  interpreter.settle();
}
template <auto capacityIs>
void hwCapacity(Interpreter& interpreter, Words& words) {
  static constexpr std::string_view what = "a number, or 'none' for no limit";
  const std::string_view word = words.take(what);
  const auto capacity =
      word == "none" ? std::nullopt : std::optional{parseNumber<std::size_t>(word, "the room")};
  words.end();
  (interpreter.agent().*capacityIs)(capacity);
}
void hwCount(Interpreter& interpreter, Words& words) {
  const std::string name = takeName(words, "the name of a flow");
  const auto packets = takeNumber<std::uint64_t>(words, "a number of packets");
  const auto bytes = takeNumber<std::uint64_t>(words, "a number of bytes");
  const std::string unit =
      words.done() ? std::string{Sim::HwAgent::firstUnit} : takeName(words, "the name of a unit");
  words.end();
  interpreter.agent().countersAdd(name, packets, bytes, unit);
  interpreter.settle();
}
template <bool published>
void hwPublish(Interpreter& interpreter, Words& words) {
  words.end();
  interpreter.agent().publishedIs(published);
  interpreter.settle();
}

// The library's life.

void stop(Interpreter& interpreter, Words& words) {
  words.end();
  if (!interpreter.service().running()) {
    throw CommandError{"read 'stop', expected 'start' first: the library is stopped"};
  }
  interpreter.service().stop();
  interpreter.printer().note("the library is stopped");
}

template <bool bare>
void start(Interpreter& interpreter, Words& words) {
  words.end();
  Sim::Service& service = interpreter.service();
  if (service.running()) {
    throw CommandError{"read 'start', expected 'stop' first: the library is running"};
  }
  const Sim::Announcement announcement = bare ? service.startBare() : service.start();
  interpreter.print("start", announcement);
  interpreter.printer().note(service.running() ? "the library is running"
                                               : "the library stays stopped");
  interpreter.tampered();  // without the announcement, rows may have no flows
}

void resync(Interpreter& interpreter, Words& words) {
  words.end();
  if (!interpreter.service().running()) {
    throw CommandError{"read 'resync', expected 'start' first: the library is stopped"};
  }
  interpreter.print("resync", interpreter.service().resync());
}

// What there is to see.

void counter(Interpreter& interpreter, Words& words) {
  const auto handle = takeNumber<std::uint64_t>(words, "the handle of an entry");
  words.end();
  const auto data = interpreter.service().counter(handle);
  if (!data) {
    throw CommandError{"read 'counter', expected 'start' first: nobody reads counters before"};
  }
  interpreter.printer().counter(handle, *data);
}

// What a command that looks into the library needs.
template <class View>
const View& ofRunningLibrary(const std::optional<View>& view, const char* command) {
  if (!view) {
    throw CommandError{std::string{"read '"} + command +
                       "', expected 'start' first: the library is stopped"};
  }
  return *view;
}

void explainFlow(Interpreter& interpreter, Words& words) {
  const FlowWrite flow = parseFlow(words);
  const auto preview = interpreter.service().explain(flow.table, flow.entry);
  interpreter.printer().explanation(flow.entry, ofRunningLibrary(preview, "explain"));
}
void explainHandle(Interpreter& interpreter, P4Runtime::EntryHandle handle) {
  const auto flow = interpreter.service().storedFlow(handle);
  if (!flow) {
    throw CommandError{"read " + std::to_string(handle) +
                       ", expected the handle of a flow entry that is stored"};
  }
  interpreter.printer().storedFlow(*flow);
}
void explainEntry(Interpreter& interpreter, Words& words) {
  const auto handle = takeNumber<std::uint64_t>(words, "the handle of an entry");
  words.end();
  explainHandle(interpreter, handle);
}
void explainName(Interpreter& interpreter, Words& words) {
  static constexpr std::string_view what = "'flow', 'entry', or the name of a Corvex flow";
  const std::string name = takeName(words, what);
  words.end();
  if (!name.starts_with(Ostra::flowNamePrefix)) {
    throwUnexpected(name, what);
  }
  explainHandle(interpreter, parseNumber<std::uint64_t>(name.substr(Ostra::flowNamePrefix.size()),
                                                        "the number in the name of a flow"));
}
void audit(Interpreter& interpreter, Words& words) {
  words.end();
  interpreter.printer().audit(ofRunningLibrary(interpreter.service().audit(), "audit"));
}
void showPending(Interpreter& interpreter, Words& words) {
  words.end();
  interpreter.printer().pending(interpreter.service().pending());
}

void showFlows(Interpreter& interpreter, Words& words) {
  words.end();
  interpreter.printer().flows(interpreter.service().flows());
}
void showGroups(Interpreter& interpreter, Words& words) {
  words.end();
  interpreter.printer().groups(interpreter.service().groups());
}
void showVrfs(Interpreter& interpreter, Words& words) {
  words.end();
  interpreter.printer().vrfs(interpreter.service().vrfs(), interpreter.service().dependents());
}
void showEntries(Interpreter& interpreter, Words& words) {
  words.end();
  interpreter.printer().entries(interpreter.service().entries());
}
void showHw(Interpreter& interpreter, Words& words) {
  words.end();
  interpreter.printer().hw(interpreter.agent());
}
void showTrace(Interpreter& interpreter, Words& words) {
  const std::size_t count = words.done()
                                ? defaultTraceLines
                                : takeNumber<std::size_t>(words, "a number of trace records");
  words.end();
  std::vector<std::string> lines;
  for (const auto& record : Brisklog::RingReader::attach(Brisklog::ring()).newest(count)) {
    lines.push_back(record.printedLine());
  }
  interpreter.printer().trace(lines);
}

void echo(Interpreter& interpreter, Words& words) { interpreter.printer().echo(words.takeRest()); }
void help(Interpreter& interpreter, Words& words) {
  const bool grammar = !words.done();
  interpreter.printer().help(takeHelp(words), grammar);
}
void quit(Interpreter& interpreter, Words& words) {
  words.end();
  interpreter.quit();
}

constexpr std::string_view flowWords =
    "[table=N] [table-type=N] [priority-group=N] priority=N FIELD=VALUE... -> ACTION...";
constexpr std::string_view memberWords = "ID port=N encap=N [dst-mac=MAC] [src-mac=MAC]";
constexpr std::string_view groupWords = "ID members=ID,ID,... [weights=N,N,...]";

constexpr std::array table{
    Command{"port", "ID INTF", "map a P4 port id to an interface", port},
    Command{"no port", "ID", "drop the mapping of a port id", noPort},
    Command{"encap", "ID src=IP dst=IP [ttl=N] [dscp=N] [type=ip-in-ip]",
            "write an IPv4 encapsulation entry", encap},
    Command{"no encap", "ID", "remove an encapsulation entry", noEncap},
    Command{"insert flow", flowWords, "write a new flow entry", writeFlow<Sim::Op::insert_>},
    Command{"modify flow", flowWords, "write a flow entry that is there",
            writeFlow<Sim::Op::modify_>},
    Command{"delete flow", flowWords.substr(0, flowWords.find(" ->")), "remove a flow entry",
            writeFlow<Sim::Op::delete_>},
    Command{"insert member", memberWords, "write a new action-profile member",
            writeMember<Sim::Op::insert_>},
    Command{"modify member", memberWords, "write a member that is there",
            writeMember<Sim::Op::modify_>},
    Command{"delete member", "ID", "remove a member", deleteMember},
    Command{"insert group", groupWords, "write a new action-profile group",
            writeGroup<Sim::Op::insert_>},
    Command{"modify group", groupWords, "write a group that is there",
            writeGroup<Sim::Op::modify_>},
    Command{"delete group", "ID", "remove a group", deleteGroup},
    Command{"begin", "", "keep the writes that follow for one batch", begin},
    Command{"commit", "", "apply the writes since 'begin', in order", commit},
    Command{"hw auto", "", "the hardware programs by itself after each batch (default)",
            hwMode<true>},
    Command{"hw manual", "", "the hardware programs only when told", hwMode<false>},
    Command{"hw run", "", "program all that is waiting", hwRun},
    Command{"hw flow", "NAME STATUS", "publish a status number for a flow", hwFlow},
    Command{"hw group", "ID STATUS", "publish a status number for a Corvex group", hwGroup},
    Command{"hw remove flow", "NAME", "withdraw what is published for a flow", hwRemoveFlow},
    Command{"hw remove group", "ID", "withdraw what is published for a Corvex group",
            hwRemoveGroup},
    Command{"hw capacity flows", "N | none", "the hardware's room for flows",
            hwCapacity<&Sim::HwAgent::flowCapacityIs>},
    Command{"hw capacity groups", "N | none", "the hardware's room for groups",
            hwCapacity<&Sim::HwAgent::groupCapacityIs>},
    Command{"hw count", "NAME PACKETS BYTES [UNIT]",
            "add to a flow's counters on a unit (default unit0)", hwCount},
    Command{"hw unpublish", "", "withdraw the whole hardware status", hwPublish<false>},
    Command{"hw publish", "", "restore the hardware status", hwPublish<true>},
    Command{"corvex flow", "NAME", "place a Corvex flow behind the library's back", corvexFlow},
    Command{"corvex no flow", "NAME", "remove a Corvex flow behind the library's back",
            corvexNoFlow},
    Command{"damage", "HANDLE", "flip a bit in the stored row of a flow entry, member or group",
            damage},
    Command{"stop", "", "destroy the library; tables, Corvex and hardware stay", stop},
    Command{"start", "", "create the library and announce every stored row", start<false>},
    Command{"start bare", "", "create the library without announcing the rows", start<true>},
    Command{"resync", "", "announce every stored row again", resync},
    Command{"counter", "HANDLE", "read a flow entry's direct counter", counter},
    Command{"explain flow", flowWords, "what 'insert flow' or 'modify flow' would do", explainFlow},
    Command{"explain entry", "HANDLE", "a stored flow entry, from its row to the hardware",
            explainEntry},
    Command{"explain", "NAME", "the same by the name of its Corvex flow", explainName},
    Command{"audit", "", "compare what is stored, in Corvex and in the hardware", audit},
    Command{"show flows", "", "the Corvex flows", showFlows},
    Command{"show groups", "", "the Corvex groups", showGroups},
    Command{"show vrfs", "", "the VRFs with their entries", showVrfs},
    Command{"show entries", "", "the stored flow entries and the library's index of them",
            showEntries},
    Command{"show pending", "", "the flow entries whose writes wait for the hardware", showPending},
    Command{"show hw", "", "what the hardware publishes", showHw},
    Command{"show trace", "[N]", "the newest N records of the trace ring (default 50)", showTrace},
    Command{"echo", "TEXT", "print the text", echo},
    Command{"help", "[COMMAND]", "list the commands, or show the grammar of some", help},
    Command{"quit", "", "end", quit},
};

// Whether `name` starts with the words of `prefix`.
bool startsWithWords(std::string_view name, std::string_view prefix) {
  return name.starts_with(prefix) &&
         (prefix.empty() || name.size() == prefix.size() || name[prefix.size()] == ' ');
}

// The next word of a name after its first `length` characters; empty at its end.
std::string_view wordBehind(std::string_view name, std::size_t length) {
  name.remove_prefix(std::min(name.size(), length == 0 ? 0 : length + 1));
  return name.substr(0, name.find(' '));
}

// Takes words while they are a prefix of some command's name, and returns that prefix as a part of
// the table's text.
std::string_view takePrefix(Words& words) {
  std::string_view prefix;
  for (;;) {
    const std::string_view next = words.peek();
    const auto* const found = std::find_if(table.begin(), table.end(), [&](const Command& command) {
      return startsWithWords(command.name, prefix) && !next.empty() &&
             wordBehind(command.name, prefix.size()) == next;
    });
    if (found == table.end()) {
      return prefix;
    }
    words.take(next);
    prefix = found->name.substr(0, (prefix.empty() ? 0 : prefix.size() + 1) + next.size());
  }
}

// For words that are only a part of a name, or none.
[[noreturn]] void throwUnknown(std::string_view prefix, std::string_view read) {
  std::vector<std::string_view> possible;
  for (const Command& command : table) {
    const std::string_view word = wordBehind(command.name, prefix.size());
    if (startsWithWords(command.name, prefix) && !word.empty() &&
        std::find(possible.begin(), possible.end(), word) == possible.end()) {
      possible.push_back(word);
    }
  }
  std::string expected;
  if (prefix.empty()) {
    expected = "a command";
  } else {
    for (const std::string_view word : possible) {
      expected.append(expected.empty() ? "" : ", ").append(word);
    }
    expected = (possible.size() == 1 ? "" : "one of ") + expected + " after " + quoted(prefix);
  }
  throwUnexpected(read, expected, nearMatch(read, possible));
}

std::string grammarOf(const Command& command) {
  std::string text{command.name};
  return command.grammar.empty() ? text : text.append(" ").append(command.grammar);
}

// The explanation of the words of a command on flow entries; empty for any other command.
std::string flowGrammarOf(const Command& command) {
  return command.grammar.starts_with("[table") ? flowGrammar(command.grammar == flowWords)
                                               : std::string{};
}

}  // namespace

std::span<const Command> commands() noexcept { return table; }

const Command& takeCommand(Words& words) {
  const std::string_view prefix = takePrefix(words);
  const Command* const command = findWord(table, prefix);
  if (command == nullptr) {
    throwUnknown(prefix, words.peek());
  }
  return *command;
}

std::vector<HelpEntry> takeHelp(Words& words) {
  const std::string_view prefix = takePrefix(words);
  if (!words.done()) {
    throwUnknown(prefix, words.peek());
  }
  std::vector<HelpEntry> entries;
  for (const Command& command : table) {
    if (startsWithWords(command.name, prefix)) {
      entries.push_back(
          {command.name, command.summary,
           grammarOf(command) + (command.name == prefix ? flowGrammarOf(command) : std::string{})});
    }
  }
  return entries;
}

}  // namespace Cli
