#include "p4rt/server/GrpcStatus.h"

#include <string>
#include <string_view>

#include "google/rpc/status.pb.h"

namespace P4rt {
namespace {

// The text cut to at most that many bytes, between two UTF-8 characters.
std::string shortened(std::string_view text, std::size_t mostBytes) {
  constexpr std::string_view mark = "...";
  if (text.size() <= mostBytes) {
    return std::string{text};
  }
  std::size_t end = mostBytes > mark.size() ? mostBytes - mark.size() : 0;
  while (end > 0 && (static_cast<unsigned char>(text[end]) & 0xC0U) == 0x80U) {
    --end;
  }
  return std::string{text.substr(0, end)}.append(mark);
}

google::rpc::Status packed(const RpcStatus& status, std::string_view message, bool withMessages) {
  google::rpc::Status packed;
  packed.set_code(static_cast<int>(status.code));
  packed.set_message(std::string{message});
  for (const p4::v1::Error& error : status.details) {
    if (withMessages || error.message().empty()) {
      packed.add_details()->PackFrom(error);
    } else {
      p4::v1::Error brief = error;
      brief.clear_message();
      packed.add_details()->PackFrom(brief);
    }
  }
  return packed;
}

}  // namespace

grpc::Status grpcStatus(const RpcStatus& status, std::size_t mostBytes) {
  if (status.ok()) {
    return grpc::Status::OK;
  }
  const auto code = static_cast<grpc::StatusCode>(status.code);
  // With details the message is sent twice: once as the RPC's, and once within the details.
  const std::string message = shortened(status.message, mostBytes / 4);
  if (status.details.empty()) {
    return {code, message};
  }
  for (const bool withMessages : {true, false}) {
    const google::rpc::Status details = packed(status, message, withMessages);
    if (details.ByteSizeLong() + message.size() <= mostBytes) {
      return {code, message, details.SerializeAsString()};
    }
  }
  constexpr std::string_view left = "; the errors of the updates are too long to send";
  return {code, shortened(status.message, mostBytes / 4).append(left)};
}

}  // namespace P4rt
