// Tracing: one call writes a binary record and, where wanted, a text message.
//
//   constinit Brisklog::TraceHandle ostraTrace{"Ostra"};
//   constinit Brisklog::TracePoint insertPoint{ostraTrace, 5, "OstraSm::", "insert", " flow:%s"};
//   ...
//   insertPoint(flowName);
//
// The binary record always goes to the process's ring (Ring.h), without a lock, an allocation or
// any formatting. The text goes to the host's sink (TextTrace.h) when the handle's level is at
// least the level of the point.
//
// Threads: any thread may trace and change levels. A forked child goes on writing into a named ring
// of its parent until it sets a ring of its own.
// Ownership: handles and points have static storage and live as long as the program traces. The
// texts that they are given are not copied, so they must be string literals.
// Invariant: a call never throws. Where there is no memory for a ring or for a text, the record or
// the text is dropped.
#pragma once

#include <array>
#include <atomic>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

#include "platform/Brisklog/Argument.h"
#include "platform/Brisklog/RingLayout.h"
#include "platform/Korm/Exceptions.h"

namespace Brisklog {

// A library's name in the trace, and how much of its trace is wanted as text. One per library.
class TraceHandle {
 public:
  constexpr explicit TraceHandle(std::string_view name) noexcept : name_(name) {}
  TraceHandle(const TraceHandle&) = delete;
  TraceHandle& operator=(const TraceHandle&) = delete;

  [[nodiscard]] constexpr std::string_view name() const noexcept { return name_; }

  // Points of the levels 0 to `level` produce text; -1, the initial level, turns text off.
  void levelIs(int level) noexcept { level_.store(level, std::memory_order_relaxed); }
  [[nodiscard]] int level() const noexcept { return level_.load(std::memory_order_relaxed); }
  [[nodiscard]] bool enabled(int level) const noexcept { return level <= this->level(); }

 private:
  const std::string_view name_;
  std::atomic<int> level_ = -1;
};

namespace detail {

// One argument of a text message: a value of one of the kinds, or an object with its stream
// operator.
struct TextArgument {
  ArgumentKind kind = ArgumentKind::none_;
  const void* value = nullptr;
  void (*print)(std::ostream&, const void*) = nullptr;
};

template <class T>
struct Streamed {
  const T* value;
  static void print(std::ostream& stream, const void* object) {
    operator<<(stream, *static_cast<const T*>(object));
  }
};

template <class T>
[[nodiscard]] auto textValue(const T& value) noexcept {
  if constexpr (Streamable<T>) {
    return Streamed<T>{&value};
  } else {
    return argumentOf(value);
  }
}

template <class Value>
[[nodiscard]] TextArgument textArgument(const Value& value) noexcept {
  return {.kind = kindOf<Value>(), .value = &value};
}
template <class T>
[[nodiscard]] TextArgument textArgument(const Streamed<T>& value) noexcept {
  return {.value = value.value, .print = &Streamed<T>::print};
}

// A record that one writer has claimed. Nobody else stores into it until it is published.
struct ClaimedRecord {
  Word* words;
  Word complete;  // the sequence word that publishes it
};

// Stores as many of the bytes as fit between `next` and `end`. Returns the first word behind them.
Word* storeBytes(Word* next, const Word* end, const void* data, std::size_t size) noexcept;

[[nodiscard]] constexpr Word rawWord(bool value) noexcept { return value ? 1 : 0; }
[[nodiscard]] constexpr Word rawWord(std::uint64_t value) noexcept { return value; }
[[nodiscard]] constexpr Word rawWord(std::int64_t value) noexcept {
  return static_cast<Word>(value);
}
[[nodiscard]] constexpr Word rawWord(double value) noexcept { return std::bit_cast<Word>(value); }

template <class Value>
Word* storeArgument(Word* next, const Word*, Value value) noexcept {
  storeShared(*next, rawWord(value));
  return next + 1;
}
inline Word* storeArgument(Word* next, const Word* end, std::string_view value) noexcept {
  return storeBytes(next, end, value.data(), value.size());
}
inline Word* storeArgument(Word* next, const Word* end, Bytes value) noexcept {
  return storeBytes(next, end, value.data, value.size);
}

// The kinds of a record's arguments as bits of its control word.
template <class... Values>
[[nodiscard]] consteval Word kindsOf() {
  Word kinds = 0;
  unsigned shift = kindsShift;
  ((kinds |= static_cast<Word>(kindOf<Values>()) << shift, shift += kindBits), ...);
  return kinds;
}

}  // namespace detail

// A place in the program that traces. There is one object for each, at namespace scope.
class TracePoint {
 public:
  // level: 0 for failures, larger numbers for finer detail.
  //
  // scope, function: what traces, such as "OstraSm::" and "handleFlow".
  //
  // format: follows the function's name in the text; each "%s" stands for one argument. Arguments
  // without a "%s" are appended, each after a space.
  //
  // unit: a path of a source file, cut to its last directory and name, or a unit such as
  // "Ostra/FlowUtil".
  constexpr TracePoint(const TraceHandle& handle, int level, std::string_view scope,
                       std::string_view function, std::string_view format = "",
                       const char* unit = __builtin_FILE(), int line = __builtin_LINE()) noexcept
      : handle_(handle),
        scope_(scope),
        function_(function),
        format_(format),
        unit_(Korm::sourceUnit(unit)),
        level_(level),
        line_(line) {}
  TracePoint(const TracePoint&) = delete;
  TracePoint& operator=(const TracePoint&) = delete;

  // Traces the values, at most eight; see Argument.h for their types. In a record, texts and bytes
  // share 104 bytes less 8 for each other argument. Where that is not enough they are cut and
  // marked as cut. The text trace is never cut.
  template <class... Args>
  void operator()(const Args&... args) const noexcept {
    static_assert(sizeof...(Args) <= detail::maxArguments);
    record(detail::argumentOf(args)...);
    if (handle_.enabled(level_)) [[unlikely]] {
      emit(detail::textValue(args)...);
    }
  }

  [[nodiscard]] constexpr const TraceHandle& handle() const noexcept { return handle_; }
  [[nodiscard]] constexpr int level() const noexcept { return level_; }
  [[nodiscard]] constexpr std::string_view scope() const noexcept { return scope_; }
  [[nodiscard]] constexpr std::string_view function() const noexcept { return function_; }
  [[nodiscard]] constexpr std::string_view format() const noexcept { return format_; }
  [[nodiscard]] constexpr std::string_view unit() const noexcept { return unit_; }
  [[nodiscard]] constexpr int line() const noexcept { return line_; }

 private:
  template <class... Values>
  void record(Values... values) const noexcept {
    const detail::ClaimedRecord claimed = claim(detail::kindsOf<Values...>());
    [[maybe_unused]] detail::Word* next = claimed.words + detail::payloadWord;
    // One word stays reserved for each later argument, so that a long text leaves room for them.
    [[maybe_unused]] const detail::Word* end =
        claimed.words + detail::recordWords - sizeof...(values);
    ((next = detail::storeArgument(next, ++end, values)), ...);
    detail::storeShared(claimed.words[detail::sequenceWord], claimed.complete);
  }

  template <class... Values>
  [[gnu::noinline, gnu::cold]] void emit(Values... values) const noexcept {
    const std::array<detail::TextArgument, sizeof...(Values)> arguments{
        detail::textArgument(values)...};
    emitText(arguments);
  }

  // Claims the next record of the current ring and fills in all but the arguments.
  [[nodiscard]] detail::ClaimedRecord claim(detail::Word kinds) const noexcept;
  void emitText(std::span<const detail::TextArgument> arguments) const noexcept;

  const TraceHandle& handle_;
  const std::string_view scope_;
  const std::string_view function_;
  const std::string_view format_;
  const std::string_view unit_;
  const int level_;
  const int line_;

  // Generation of the ring << 32 | id in its dictionary; 0 while the point is not registered.
  mutable std::atomic<std::uint64_t> registration_ = 0;
};

}  // namespace Brisklog
