// Rows of text in aligned columns.
#pragma once

#include <iosfwd>
#include <string>
#include <string_view>
#include <vector>

namespace Cli {

class TextTable {
 public:
  // A column whose title starts with '>' is aligned to the right.
  explicit TextTable(const std::vector<std::string_view>& titles);

  // Adds a row, in which control characters are replaced as by printable().
  // Requires: as many cells as titles.
  void rowIs(std::vector<std::string> cells);
  [[nodiscard]] bool empty() const noexcept { return rows_.empty(); }

  // Prints the titles and the rows. Each line begins with `indent` and has no blanks at its end.
  void print(std::ostream& out, std::string_view indent = "  ") const;

 private:
  void printLine(std::ostream& out, std::string_view indent,
                 const std::vector<std::string>& cells) const;

  struct Column {
    std::size_t width;
    bool right;
  };
  std::vector<Column> columns_;
  std::vector<std::string> titles_;
  std::vector<std::vector<std::string>> rows_;
};

// The text with '?' in place of control characters. Names come from controllers and from shared
// memory, and a terminal obeys what it reads.
[[nodiscard]] std::string printable(std::string text);

// How many columns a UTF-8 text takes on a terminal: its characters without combining ones.
[[nodiscard]] std::size_t displayWidth(std::string_view text) noexcept;

}  // namespace Cli
