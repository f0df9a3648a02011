// What would be accepted in place of what was refused, in plain words.
#pragma once

#include <string>
#include <string_view>

#include "Ostra/FlowPreview.h"
#include "Ostra/OstraTypes.h"

namespace Cli {

// Empty for a write that is accepted, and where the message says it all.
[[nodiscard]] std::string hintText(const Ostra::OstraConfigEntry& entry,
                                   const Ostra::FlowPreview& preview);

// "group", for people and programs.
[[nodiscard]] std::string_view stepText(Ostra::FlowStep step) noexcept;
// Whether the step can refuse a write.
[[nodiscard]] bool isCheck(Ostra::FlowStep step) noexcept;

}  // namespace Cli
