// The texts of values and messages. The text trace and the reader of a ring share them.
// Private to Brisklog.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>

#include "platform/Brisklog/Argument.h"

namespace Brisklog::detail {

[[nodiscard]] std::string textOf(bool value);
[[nodiscard]] std::string textOf(std::int64_t value);
[[nodiscard]] std::string textOf(std::uint64_t value);
[[nodiscard]] std::string textOf(double value);  // the shortest that reads back as the same value
[[nodiscard]] std::string textOf(std::string_view value);
[[nodiscard]] std::string textOf(Bytes value);

// The scope, the function, and the format with each "%s" replaced by the next argument. Surplus
// arguments are appended, each after a space; a surplus "%s" stays.
[[nodiscard]] std::string messageText(std::string_view scope, std::string_view function,
                                      std::string_view format,
                                      std::span<const std::string> arguments);

}  // namespace Brisklog::detail
