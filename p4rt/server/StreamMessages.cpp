#include "p4rt/server/StreamMessages.h"

namespace P4rt {
namespace {

using Request = p4::v1::StreamMessageRequest;

struct Answer {
  Code code;
  const char* text;
};

Answer answerTo(Request::UpdateCase kind, bool fromPrimary) {
  switch (kind) {
    case Request::kPacket:
      return fromPrimary ? Answer{Code::unimplemented_, "packet I/O is not offered"}
                         : Answer{Code::permissionDenied_, "only a primary may send packets"};
    case Request::kDigestAck:
      return {Code::unimplemented_, "digests are not offered"};
    case Request::kOther:
      return {Code::unimplemented_, "no messages of other kinds are offered"};
    default:
      return {Code::invalidArgument_, "the message is empty, or of a kind that is not known"};
  }
}

Answer answerTo(Standing standing) {
  switch (standing) {
    case Standing::primary_:
      return {Code::ok_, "you are the primary"};
    case Standing::backup_:
      return {Code::alreadyExists_, "another controller is the primary"};
    default:
      return {Code::notFound_, "there is no primary"};
  }
}

}  // namespace

Claim claimOf(const p4::v1::MasterArbitrationUpdate& update) {
  Claim claim{.device = update.device_id(),
              .role = {.name = update.role().name(), .id = update.role().id()},
              .roleConfig = update.role().has_config()};
  if (update.has_election_id()) {
    claim.electionId = {update.election_id().high(), update.election_id().low()};
  }
  return claim;
}

p4::v1::StreamMessageResponse noticeMessage(const Notice& notice, std::uint64_t device,
                                            const Role& role) {
  p4::v1::StreamMessageResponse message;
  auto& update = *message.mutable_arbitration();
  update.set_device_id(device);
  if (role != Role{}) {
    update.mutable_role()->set_name(role.name);
    update.mutable_role()->set_id(role.id);
  }
  if (notice.highest) {
    update.mutable_election_id()->set_high(notice.highest->high);
    update.mutable_election_id()->set_low(notice.highest->low);
  }
  const Answer answer = answerTo(notice.standing);
  update.mutable_status()->set_code(static_cast<int>(answer.code));
  update.mutable_status()->set_message(answer.text);
  return message;
}

p4::v1::StreamMessageResponse errorMessage(const Request& refused, bool fromPrimary) {
  const Answer answer = answerTo(refused.update_case(), fromPrimary);
  p4::v1::StreamMessageResponse message;
  auto& error = *message.mutable_error();
  error.set_canonical_code(static_cast<int>(answer.code));
  error.set_message(answer.text);
  switch (refused.update_case()) {
    case Request::kPacket:
      *error.mutable_packet_out()->mutable_packet_out() = refused.packet();
      break;
    case Request::kDigestAck:
      *error.mutable_digest_list_ack()->mutable_digest_list_ack() = refused.digest_ack();
      break;
    default:
      *error.mutable_other()->mutable_other() = refused.other();
  }
  return message;
}

}  // namespace P4rt
