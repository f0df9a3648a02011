// A service's rules of its own: entries are refused with an error of its own, ports with no entry
// error.
#pragma once

#include "platform/P4Runtime/Validation.h"
#include "tests/Testing.h"

namespace OstraTest {

class OwnRules final : public P4Runtime::ValidationHelper {
 public:
  class Error final : public P4Runtime::P4RuntimeExceptionBase {
   public:
    explicit Error(int& reports) : reports_{reports} {}
    void report() const override { ++reports_; }

   private:
    int& reports_;
  };

  [[noreturn]] void throwEntryErrorException(P4Runtime::EntryHandle, P4Runtime::ErrorCode,
                                             const Korm::String&) override {
    throw Error{reports};
  }
  [[noreturn]] void throwUndefinedEntryBehavior(P4Runtime::EntryHandle, const Korm::String&,
                                                const Korm::String&) override {
    throw Error{reports};
  }
  [[noreturn]] void throwNotAllowedEntryBehavior(P4Runtime::EntryHandle, const Korm::String&,
                                                 const Korm::String&) override {
    throw Error{reports};
  }
  void validatePortIdMask(P4Runtime::EntryHandle, P4Runtime::P4PortId,
                          const Korm::String&) override {
    throw Error{reports};
  }
  void validatePortId(P4Runtime::EntryHandle handle, P4Runtime::P4PortId port,
                      const Korm::String& context) override {
    throw std::logic_error{std::to_string(handle) + " " + std::to_string(port) + " " + context};
  }

  int reports = 0;  // of its errors
};

}  // namespace OstraTest
