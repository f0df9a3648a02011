// Files that are read as a whole.
//
// Thread and process rule: functions without state.
#pragma once

#include <stdexcept>
#include <string>

#include "p4/config/v1/p4info.pb.h"

namespace P4rt {

// What is wrong with a file.
class FileError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// Throws FileError.
[[nodiscard]] std::string contentOf(const std::string& file);

// A P4Info in protobuf's text form. Throws FileError that says where what is wrong.
[[nodiscard]] p4::config::v1::P4Info p4infoOf(const std::string& file);

}  // namespace P4rt
