#include "platform/Brisklog/TextTrace.h"

#include <exception>
#include <locale>
#include <memory>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "platform/Brisklog/TracePoint.h"
#include "platform/Brisklog/private/TextFormat.h"
#include "platform/Korm/Mutex.h"

namespace Brisklog {
namespace {

// Never destroyed, because trace points may run until the very end.
struct SinkHolder {
  Korm::Mutex mutex;
  std::shared_ptr<const TextSink> sink KORM_GUARDED_BY(mutex);
};

SinkHolder& holder() {
  static SinkHolder& theHolder = *new SinkHolder;
  return theHolder;
}

// Set while this thread is in the sink.
constinit thread_local bool isEmitting = false;

std::string argumentText(const detail::TextArgument& argument) {
  switch (argument.kind) {
    case ArgumentKind::bool_:
      return detail::textOf(*static_cast<const bool*>(argument.value));
    case ArgumentKind::signed_:
      return detail::textOf(*static_cast<const std::int64_t*>(argument.value));
    case ArgumentKind::unsigned_:
      return detail::textOf(*static_cast<const std::uint64_t*>(argument.value));
    case ArgumentKind::double_:
      return detail::textOf(*static_cast<const double*>(argument.value));
    case ArgumentKind::text_:
      return detail::textOf(*static_cast<const std::string_view*>(argument.value));
    case ArgumentKind::bytes_:
      return detail::textOf(*static_cast<const Bytes*>(argument.value));
    case ArgumentKind::none_:
      break;
  }
  std::ostringstream stream;
  // A trace looks the same in every locale that a host may have chosen for its users.
  stream.imbue(std::locale::classic());
  argument.print(stream, argument.value);
  return std::move(stream).str();
}

}  // namespace

void textSinkIs(TextSink sink) {
  auto next = sink ? std::make_shared<const TextSink>(std::move(sink)) : nullptr;
  // The old sink is destroyed after the lock: it may trace in its destructor.
  SinkHolder& shared = holder();
  const Korm::Lock lock(shared.mutex);
  shared.sink.swap(next);
}

void TracePoint::emitText(std::span<const detail::TextArgument> arguments) const noexcept {
  if (isEmitting) {
    return;
  }
  const auto sink = [] {
    SinkHolder& shared = holder();
    const Korm::Lock lock(shared.mutex);
    return shared.sink;
  }();
  if (sink == nullptr) {
    return;
  }
  isEmitting = true;
  try {
    std::vector<std::string> texts;
    for (const detail::TextArgument& argument : arguments) {
      texts.push_back(argumentText(argument));
    }
    const std::string text = detail::messageText(scope_, function_, format_, texts);
    (*sink)({.handle = handle_.name(),
             .level = level_,
             .unit = unit_,
             .line = line_,
             .function = function_,
             .text = text});
  } catch (const std::exception&) {
    // There was no memory for the text: a trace must not end the program.
  }
  isEmitting = false;
}

}  // namespace Brisklog
