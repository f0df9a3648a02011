#include "p4rt/server/Files.h"

#include <google/protobuf/io/tokenizer.h>
#include <google/protobuf/text_format.h>

#include <cerrno>
#include <fstream>
#include <iterator>
#include <system_error>

namespace P4rt {
namespace {

// Records the first syntax error.
class Faults final : public google::protobuf::io::ErrorCollector {
 public:
  void AddError(int line, int column, const std::string& message) override {
    if (first_.empty()) {
      first_ = std::to_string(line + 1) + ":" + std::to_string(column + 1) + ": " + message;
    }
  }
  [[nodiscard]] const std::string& first() const noexcept { return first_; }

 private:
  std::string first_;
};

}  // namespace

std::string contentOf(const std::string& file) {
  std::ifstream input{file, std::ios::binary};
  std::string content{std::istreambuf_iterator<char>{input}, {}};
  if (!input) {
    throw FileError{"cannot read '" + file + "': " + std::generic_category().message(errno)};
  }
  return content;
}

p4::config::v1::P4Info p4infoOf(const std::string& file) {
  Faults faults;
  google::protobuf::TextFormat::Parser parser;
  parser.RecordErrorsTo(&faults);
  p4::config::v1::P4Info p4info;
  if (!parser.ParseFromString(contentOf(file), &p4info)) {
    throw FileError{file + ":" + faults.first()};
  }
  return p4info;
}

}  // namespace P4rt
