// The options of all programs that say who may use their shared memory.
#pragma once

#include <sys/types.h>

#include <string_view>

#include "cli/OptionWords.h"
#include "platform/Korm/Segment.h"

namespace Cli {

// The group of that name or number.
// Throws: CommandError when there is none of that name.
[[nodiscard]] gid_t parseGroup(std::string_view text);

// Options has a member Korm::SegmentRights rights.
template <class Options>
inline constexpr OptionWord<Options> groupWord{
    "--shm-group", "GROUP",
    [](Options& options, std::string_view group) { options.rights.group = parseGroup(group); }};
template <class Options>
inline constexpr OptionWord<Options> trustWord{
    "--trust-owner", "",
    [](Options& options, std::string_view) { options.rights.trustOtherUsers = true; }};

}  // namespace Cli
