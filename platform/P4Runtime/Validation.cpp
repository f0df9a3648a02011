#include "platform/P4Runtime/Validation.h"

namespace P4Runtime {

void EntryErrorException::report() const {
  if (batchStatus_) {
    batchStatus_->markTransaction(handle_, code_, message_);
  }
}

void DefaultValidationHelper::throwEntryErrorException(EntryHandle handle, ErrorCode code,
                                                       const Korm::String& message) {
  throw EntryErrorException{batchStatus_, handle, code, message};
}

void DefaultValidationHelper::throwUndefinedEntryBehavior(EntryHandle handle,
                                                          const Korm::String& fieldA,
                                                          const Korm::String& fieldB) {
  throwEntryErrorException(
      handle, ErrorCode::undefinedBehavior_,
      "the combination of " + fieldA + " and " + fieldB + " has no defined behavior");
}

void DefaultValidationHelper::throwNotAllowedEntryBehavior(EntryHandle handle,
                                                           const Korm::String& reason,
                                                           const Korm::String& field) {
  throwEntryErrorException(handle, ErrorCode::notAllowed_,
                           field + " is not allowed because " + reason);
}

void DefaultValidationHelper::validatePortIdMask(EntryHandle handle, P4PortId mask,
                                                 const Korm::String& fieldName) {
  if (mask != exactMask) {
    throwEntryErrorException(handle, ErrorCode::invalidArgument_,
                             fieldName + ": mask " + std::to_string(mask) +
                                 " is not all ones; a port is matched exactly");
  }
}

void DefaultValidationHelper::validatePortId(EntryHandle handle, P4PortId portId,
                                             const Korm::String& fieldName) {
  if (portId < minPortId || portId > maxPortId) {
    throwEntryErrorException(handle, ErrorCode::invalidArgument_,
                             fieldName + ": port id " + std::to_string(portId) + " is outside " +
                                 std::to_string(minPortId) + " to " + std::to_string(maxPortId));
  }
}

}  // namespace P4Runtime
