// Reads files.
#pragma once

#include <stdexcept>
#include <string>

#include "p4/config/v1/p4info.pb.h"

namespace P4rt {

// A file cannot be read or parsed; what() says which one and why.
class FileError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// The whole content of a file.
// Throws: FileError.
[[nodiscard]] std::string contentOf(const std::string& file);

// Reads a P4Info in the text format of protobuf.
// Throws: FileError, with the line and the column of a syntax error.
[[nodiscard]] p4::config::v1::P4Info p4infoOf(const std::string& file);

}  // namespace P4rt
