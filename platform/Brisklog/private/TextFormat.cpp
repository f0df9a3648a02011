#include "platform/Brisklog/private/TextFormat.h"

#include <array>
#include <charconv>

#include "platform/Korm/Text.h"

namespace Brisklog::detail {
namespace {

template <class Number>
std::string number(Number value) {
  std::array<char, 32> buffer;
  const auto result = std::to_chars(buffer.data(), buffer.data() + buffer.size(), value);
  return {buffer.data(), result.ptr};
}

}  // namespace

std::string textOf(bool value) { return value ? "true" : "false"; }
std::string textOf(std::int64_t value) { return number(value); }
std::string textOf(std::uint64_t value) { return number(value); }
std::string textOf(double value) { return number(value); }
std::string textOf(std::string_view value) { return std::string(value); }

std::string textOf(Bytes value) { return Korm::hexText(value.data, value.size); }

std::string messageText(std::string_view scope, std::string_view function, std::string_view format,
                        std::span<const std::string> arguments) {
  constexpr std::string_view placeholder = "%s";
  std::string text;
  text += scope;
  text += function;
  for (const std::string& argument : arguments) {
    const std::size_t place = format.find(placeholder);
    text += format.substr(0, place);
    if (place == format.npos) {
      format = "";
      text += ' ';
    } else {
      format.remove_prefix(place + placeholder.size());
    }
    text += argument;
  }
  text += format;
  return text;
}

}  // namespace Brisklog::detail
