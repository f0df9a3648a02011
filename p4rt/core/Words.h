// The words of a P4Info that the switch understands: names of match fields, of action parameters
// and of flags. What a P4Info calls by such a name means this, whatever its ids are.
//
// Thread and process rule: constants and functions without state.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>

#include "Ostra/OstraTypes.h"
#include "p4rt/core/Bytes.h"
#include "platform/P4RuntimeRouting/Ecmp.h"

namespace P4rt {

// A match field.
struct FieldWord {
  std::string_view name;
  int width;   // in bits
  bool exact;  // the switch takes no mask for it
};

// In the order of the fields of Ostra::OstraKey.
[[nodiscard]] std::span<const FieldWord> fieldWords() noexcept;
// The place of that name among them, or their number.
[[nodiscard]] std::size_t findFieldWord(std::string_view name) noexcept;

// Writes the field at that place. Throws: a Fault for a value that the switch cannot hold.
void putField(Ostra::OstraKey& key, std::size_t field, const Bits& value, const Bits& mask);

struct FieldValue {
  std::size_t field;
  Bits value;
  Bits mask;
};
// The fields that are given, in the order of the words; up to `fields.size()`, which all are.
// Returns how many.
std::size_t givenFields(const Ostra::OstraKey& key, std::span<FieldValue> fields);

// What the actions with a parameter or a flag of that name are of.
enum class ActionOf : std::uint8_t { flow_, member_ };

// A parameter of an action. `bits` of a number, `text` of a string.
struct ParamWord {
  std::string_view name;
  int width;  // in bits; 0 for a string
  ActionOf of;
  // Throws: a Fault for a value that the switch cannot hold.
  void (*putInFlow)(Ostra::OstraConfigEntry& row, const Bits& bits, std::string_view text);
  void (*putInMember)(P4RuntimeRouting::NexthopInfo& row, const Bits& bits);
};
// Null when there is none.
[[nodiscard]] const ParamWord* findParamWord(std::string_view name) noexcept;

// What a flow does besides; stands in the annotations of an action.
struct FlagWord {
  std::string_view name;
  bool ofPolicer;
  void (*put)(Ostra::OstraConfigEntry& row);
};
[[nodiscard]] const FlagWord* findFlagWord(std::string_view name) noexcept;

}  // namespace P4rt
