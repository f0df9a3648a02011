// Entry errors: how the service checks entries and refuses bad ones. For the activity thread.
#pragma once

#include <exception>
#include <string>

#include "platform/Korm/Entity.h"
#include "platform/P4Runtime/BatchStatus.h"
#include "platform/P4Runtime/Types.h"

namespace P4Runtime {

// The base class of the service's entry errors. Whoever catches one calls report(), which records
// the error as the result of its entry.
class P4RuntimeExceptionBase : public std::exception {
 public:
  virtual void report() const = 0;
};

class EntryErrorException final : public P4RuntimeExceptionBase {
 public:
  EntryErrorException(Korm::Ptr<BatchStatus> batchStatus, EntryHandle handle, ErrorCode code,
                      std::string message)
      : batchStatus_{std::move(batchStatus)},
        handle_{handle},
        code_{code},
        message_{std::move(message)} {}

  void report() const override;
  [[nodiscard]] const char* what() const noexcept override { return message_.c_str(); }
  [[nodiscard]] EntryHandle handle() const noexcept { return handle_; }
  [[nodiscard]] ErrorCode code() const noexcept { return code_; }

 private:
  Korm::Ptr<BatchStatus> batchStatus_;  // may be null: then report() does nothing
  EntryHandle handle_;
  ErrorCode code_;
  std::string message_;
};

// The service's rules for entries. A `throw...` function always throws an exception derived from
// P4RuntimeExceptionBase; a `validate...` function does so when the value is bad.
class ValidationHelper : public Korm::Entity {
 public:
  [[noreturn]] virtual void throwEntryErrorException(EntryHandle handle, ErrorCode code,
                                                     const Korm::String& message) = 0;
  // For a combination of two fields that has no defined meaning.
  [[noreturn]] virtual void throwUndefinedEntryBehavior(EntryHandle handle,
                                                        const Korm::String& fieldA,
                                                        const Korm::String& fieldB) = 0;
  // For a field that is not allowed, for the reason given.
  [[noreturn]] virtual void throwNotAllowedEntryBehavior(EntryHandle handle,
                                                         const Korm::String& reason,
                                                         const Korm::String& field) = 0;
  virtual void validatePortIdMask(EntryHandle handle, P4PortId mask,
                                  const Korm::String& fieldName) = 0;
  virtual void validatePortId(EntryHandle handle, P4PortId portId,
                              const Korm::String& fieldName) = 0;
};

// The rules of the service in this process. A port is 1 to 0xFFFFFEFF, because the 256 values above
// are reserved (P4Runtime 1.3.0, "Translation of Port Numbers"), and its mask is all ones; anything
// else is invalidArgument_. A combination without meaning is undefinedBehavior_, and a field that
// is not allowed is notAllowed_.
class DefaultValidationHelper final : public ValidationHelper {
 public:
  static constexpr P4PortId minPortId = 1;
  static constexpr P4PortId maxPortId = 0xFFFFFEFF;
  static constexpr P4PortId exactMask = 0xFFFFFFFF;

  // The errors are reported to this batch status.
  explicit DefaultValidationHelper(Korm::Ptr<BatchStatus> batchStatus)
      : batchStatus_{std::move(batchStatus)} {}

  [[noreturn]] void throwEntryErrorException(EntryHandle handle, ErrorCode code,
                                             const Korm::String& message) override;
  [[noreturn]] void throwUndefinedEntryBehavior(EntryHandle handle, const Korm::String& fieldA,
                                                const Korm::String& fieldB) override;
  [[noreturn]] void throwNotAllowedEntryBehavior(EntryHandle handle, const Korm::String& reason,
                                                 const Korm::String& field) override;
  void validatePortIdMask(EntryHandle handle, P4PortId mask,
                          const Korm::String& fieldName) override;
  void validatePortId(EntryHandle handle, P4PortId portId, const Korm::String& fieldName) override;

 private:
  Korm::Ptr<BatchStatus> batchStatus_;
};

}  // namespace P4Runtime
