#include "cli/output/TextTable.h"

#include <algorithm>
#include <ostream>
#include <utility>

namespace Cli {

std::size_t displayWidth(std::string_view text) noexcept {
  return static_cast<std::size_t>(std::count_if(text.begin(), text.end(), [](char character) {
    return (static_cast<unsigned char>(character) & 0xC0U) != 0x80U;
  }));
}

std::string printable(std::string text) {
  std::replace_if(
      text.begin(), text.end(),
      [](char c) { return static_cast<unsigned char>(c) < 0x20 || c == 0x7f; }, '?');
  return text;
}

TextTable::TextTable(const std::vector<std::string_view>& titles) {
  for (std::string_view title : titles) {
    const bool right = title.starts_with('>');
    title.remove_prefix(right ? 1 : 0);
    columns_.push_back({title.size(), right});
    titles_.emplace_back(title);
  }
}

void TextTable::rowIs(std::vector<std::string> cells) {
  for (std::size_t at = 0; at < columns_.size(); ++at) {
    cells[at] = printable(std::move(cells[at]));
    columns_[at].width = std::max(columns_[at].width, displayWidth(cells[at]));
  }
  rows_.push_back(std::move(cells));
}

void TextTable::print(std::ostream& out, std::string_view indent) const {
  printLine(out, indent, titles_);
  for (const auto& row : rows_) {
    printLine(out, indent, row);
  }
}

void TextTable::printLine(std::ostream& out, std::string_view indent,
                          const std::vector<std::string>& cells) const {
  std::string line{indent};
  for (std::size_t at = 0; at < columns_.size(); ++at) {
    const std::string padding(columns_[at].width - displayWidth(cells[at]), ' ');
    line.append(at == 0 ? "" : "  ");
    line.append(columns_[at].right ? padding + cells[at] : cells[at] + padding);
  }
  line.erase(line.find_last_not_of(' ') + 1);
  out << line << '\n';
}

}  // namespace Cli
