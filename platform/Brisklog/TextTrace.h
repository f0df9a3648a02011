// Where the text trace goes.
//
// Threads: textSinkIs() may be called at any time from any thread. The sink is called on the thread
// that traces, possibly on several at once. A call in progress may still use the replaced sink.
#pragma once

#include <functional>
#include <string_view>

namespace Brisklog {

// One text message. The views are valid during the call.
struct TextMessage {
  std::string_view handle;
  int level = 0;
  std::string_view unit;
  int line = 0;
  std::string_view function;  // without the scope
  std::string_view text;      // scope, function and format, with the arguments filled in
};

// Must not throw. What the sink itself traces goes to the ring only.
using TextSink = std::function<void(const TextMessage&)>;

// Replaces the sink of the process; null, as at the start, discards the text.
void textSinkIs(TextSink sink);

}  // namespace Brisklog
