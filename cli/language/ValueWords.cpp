#include "cli/language/ValueWords.h"

namespace Cli {

void throwTwice(std::string_view word) {
  throw CommandError{"read " + quoted(word) + " twice in one command"};
}

void requireValue(const Assignment& word) {
  if (!word.assigned) {
    throw CommandError{"read " + quoted(word.name) + " without a value, expected " +
                       quoted(std::string{word.name} + "=")};
  }
}

void requireNoValue(const Assignment& word) {
  if (word.assigned) {
    throwUnexpected(std::string{word.name}.append("=").append(word.value),
                    quoted(word.name) + " without a value");
  }
}

}  // namespace Cli
