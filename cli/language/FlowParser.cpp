#include "cli/language/FlowParser.h"

#include <algorithm>
#include <array>
#include <concepts>
#include <limits>
#include <string>
#include <type_traits>

#include "cli/EntryReferences.h"
#include "cli/language/ValueWords.h"

namespace Cli {
namespace {

using OpenFlowTable::Actions;
using Ostra::MatchFieldId;
using Ostra::OstraConfigEntry;
using Ostra::OstraKey;

constexpr std::string_view arrow = "->";

template <auto setter>
constexpr auto putInKey = [](FlowWrite& flow, std::string_view value, std::string_view name) {
  using Number = decltype(OstraKey{}.priority());
  if constexpr (std::is_same_v<decltype(setter), void (OstraKey::*)(Number) noexcept>) {
    (flow.entry.flowKey.*setter)(parseNumber<Number>(value, name));
  } else {
    (flow.entry.flowKey.*setter)(parseNumber<std::uint32_t>(value, name));
  }
};

constexpr std::array placementWords{
    ValueWord<FlowWrite>{"priority", putInKey<&OstraKey::priorityIs>},
    ValueWord<FlowWrite>{"table",
                         [](FlowWrite& flow, std::string_view value, std::string_view name) {
                           flow.table =
                               parseNumber<std::uint8_t>(value, name, Ostra::flowTables - 1);
                         }},
    ValueWord<FlowWrite>{"table-type", putInKey<&OstraKey::tableTypeIs>},
    ValueWord<FlowWrite>{"priority-group", putInKey<&OstraKey::priorityGroupTypeIs>},
};
constexpr std::size_t priorityWord = 0;

OpenFlowTable::PolicerConfig parsePolicer(std::string_view text, std::string_view /*name*/) {
  static constexpr std::array<std::string_view, 3> drops{"drop-green", "drop-yellow", "drop-red"};
  static constexpr std::string_view syntax =
      "policer=RATE,BURST[,drop-green][,drop-yellow][,drop-red]";
  if (std::count(text.begin(), text.end(), ',') == 0 || text.ends_with(',')) {
    throwUnexpected("policer=" + std::string{text}, syntax);
  }
  const auto next = [&text] {
    const std::string_view part = text.substr(0, text.find(','));
    text.remove_prefix(std::min(part.size() + 1, text.size()));
    return part;
  };
  OpenFlowTable::PolicerConfig policer;
  policer.rate = parseNumber<std::uint64_t>(next(), "the policer's rate");
  policer.burst = parseNumber<std::uint64_t>(next(), "the policer's burst");
  while (!text.empty()) {
    const std::string_view part = next();
    const auto* const drop = std::find(drops.begin(), drops.end(), part);
    if (drop == drops.end()) {
      throwUnexpected(part, syntax, nearMatch(part, drops));
    }
    std::uint8_t& color = policer.dropByColor[static_cast<std::size_t>(drop - drops.begin())];
    if (std::exchange(color, std::uint8_t{1}) != 0) {
      throwTwice(part);
    }
  }
  return policer;
}

template <class T>
T parseValue(std::string_view text, std::string_view name) {
  if constexpr (std::is_integral_v<T>) {
    return parseNumber<T>(text, name);
  } else if constexpr (std::is_same_v<T, Korm::EthAddr>) {
    return parseMac(text, name);
  } else if constexpr (std::is_same_v<T, Interface::IntfId>) {
    return parseInterface(text, name);
  } else {
    static_assert(std::is_same_v<T, OpenFlowTable::PolicerConfig>, "a type without a syntax");
    return parsePolicer(text, name);
  }
}

// How the help shows such a value.
template <class T>
constexpr std::string_view valueSyntax() {
  if constexpr (std::is_integral_v<T>) {
    return "N";
  } else if constexpr (std::is_same_v<T, Korm::EthAddr>) {
    return "MAC";
  } else if constexpr (std::is_same_v<T, Interface::IntfId>) {
    return "INTF";
  } else {
    return "RATE,BURST[,drop-green][,drop-yellow][,drop-red] (kbit/s, bytes)";
  }
}

using ActionWord = ValueWord<OstraConfigEntry>;

// The word of a plain action, from its line in OPENFLOW_ACTIONS.
template <OpenFlowTable::Action action>
constexpr ActionWord actionWord() {
  constexpr std::string_view word = OpenFlowTable::actionInfo(action).word;
  if constexpr (OpenFlowTable::isFlag<action>) {
    return {.name = word,
            .apply = [](OstraConfigEntry& entry, std::string_view,
                        std::string_view) { entry.actions.flagIs<action>(true); },
            .flag = true};
  } else {
    using T = decltype(Actions{}.value<action>());
    return {.name = word,
            .apply =
                [](OstraConfigEntry& entry, std::string_view value, std::string_view name) {
                  entry.actions.uncheckedIs<action>(parseValue<T>(value, name), true);
                },
            .syntax = valueSyntax<T>()};
  }
}

// The word for one of the entry's references.
template <class Reference>
constexpr ActionWord referenceWord(const Reference& reference) {
  return {.name = reference.word,
          .apply =
              [](OstraConfigEntry& entry, std::string_view value, std::string_view name) {
                putNumber<Reference::number>(entry, value, name);
                Reference::give(entry);
              },
          .syntax = reference.syntax};
}

// Calls visit(word) for each action that has one.
template <class Visit>
constexpr void forEachActionWord(Visit visit) {
  forEachReference([&visit](const auto& reference) { visit(referenceWord(reference)); });
  OpenFlowTable::forEachAction([&visit](auto action) {
    if constexpr (!OpenFlowTable::actionInfo(action).word.empty()) {
      visit(actionWord<action>());
    }
  });
}

constexpr auto actionWords = [] {
  constexpr std::size_t count = [] {
    std::size_t words = 0;
    forEachActionWord([&words](const ActionWord&) { ++words; });
    return words;
  }();
  std::array<ActionWord, count> words{};
  std::size_t at = 0;
  forEachActionWord([&](const ActionWord& word) { words[at++] = word; });
  return words;
}();

template <class T>
ValueAndMask<T> parseField(std::string_view text, MatchFieldId field) {
  const auto& [name, width, needs] = Ostra::matchFieldInfo(field);
  if constexpr (std::is_same_v<T, bool>) {
    return parseMaskedBool(text, name);
  } else if constexpr (std::is_same_v<T, Korm::EthAddr>) {
    return parseMaskedMac(text, name);
  } else if constexpr (std::is_same_v<T, Korm::IpAddr>) {
    return parseMaskedIp(text, name, Ostra::addressFamily(field));
  } else {
    const T exact = width.template allOnes<T>();
    return parseMaskedNumber<T>(text, name, exact,
                                width.checkedByTranslation ? std::numeric_limits<T>::max() : exact);
  }
}

// Applies the word if it names a field; false when it does not.
bool applyField(const Assignment& word, OstraKey& key) {
  bool found = false;
  key.forEachField([&](auto id, const auto& field, auto put) {
    if (found || word.name != id) {
      return;
    }
    found = true;
    requireValue(word);
    if (field.given) {
      throwTwice(word.name);
    }
    const auto parsed = parseField<std::remove_cvref_t<decltype(field.value)>>(word.value, id);
    put(parsed.value, parsed.mask);
  });
  return found;
}

template <class Visit>
void forEachKeyWord(Visit visit) {
  for (const auto& known : placementWords) {
    visit(known.name);
  }
  const OstraKey key;
  key.forEachField([&visit](std::string_view name, const auto& /*field*/) { visit(name); });
}

// For a word that is not a match field. It may be an action, which belongs after the arrow.
[[noreturn]] void throwNotInKey(std::string_view read, std::string_view name) {
  NearMatch near{name};
  if (findWord(actionWords, name) != nullptr) {
    throwUnexpected(read, "actions behind '->'");
  }
  forEachKeyWord([&near](std::string_view word) { near.consider(word); });
  throwUnexpected(read, "a match field, or one of priority=, table=, table-type=, priority-group=",
                  near.match());
}

[[noreturn]] void throwNotAnAction(std::string_view read, std::string_view name) {
  forEachKeyWord([&](std::string_view word) {
    if (name == word) {
      throwUnexpected(read, "an action; what the flow matches stands before '->'");
    }
  });
  throwUnexpected(read, "an action", nearMatch(name, actionWords));
}

// Reads up to the arrow or the end.
void readKey(Words& words, FlowWrite& flow) {
  SeenWords<placementWords.size()> seen;
  while (!words.done() && words.peek() != arrow) {
    const std::string_view read = words.take(arrow);
    const Assignment word = splitAssignment(read);
    if (!applyWord(placementWords, seen, word, flow) && !applyField(word, flow.entry.flowKey)) {
      throwNotInKey(read, word.name);
    }
  }
  if (!seen.has(priorityWord)) {
    throwUnexpected(words.peek(), "priority=");
  }
}

void readActions(Words& words, OstraConfigEntry& entry) {
  SeenWords<actionWords.size()> seen;
  while (!words.done()) {
    const std::string_view read = words.take("an action");
    const Assignment word = splitAssignment(read);
    if (!applyWord(actionWords, seen, word, entry)) {
      throwNotAnAction(read, word.name);
    }
  }
}

}  // namespace

FlowWrite parseFlow(Words& words) {
  FlowWrite flow;
  readKey(words, flow);
  if (!words.takeIf(arrow)) {
    throwUnexpected({}, "'->' and the actions");
  }
  readActions(words, flow.entry);
  return flow;
}

FlowWrite parseFlowKey(Words& words) {
  FlowWrite flow;
  readKey(words, flow);
  if (!words.done()) {
    throwUnexpected(words.peek(), "the end of the line, since a delete takes just the key");
  }
  return flow;
}

std::string flowGrammar(bool withActions) {
  constexpr std::size_t longestLine = 96;
  std::string text = "\n    VALUE: VALUE, VALUE&MASK or ADDRESS/LENGTH\n    FIELD:";
  OstraKey{}.forEachField(
      [&text](std::string_view name, const auto&...) { text.append("\n      ").append(name); });
  if (!withActions) {
    return text;
  }
  std::string line = "\n    ACTION:";
  for (const ActionWord& word : actionWords) {
    std::string shown{" "};
    shown += word.name;
    shown.append(word.flag ? "" : "=").append(word.syntax);
    if (line.size() + shown.size() > longestLine) {
      text += std::exchange(line, "\n     ");
    }
    line += shown;
  }
  return text + line;
}

}  // namespace Cli
