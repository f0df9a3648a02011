// Where the library looks in the state database. The hosting service places its entities there.
#pragma once

namespace Ostra {

// The name under which the library's flows are known in the static-flow feature: the last element
// of its paths, and the hardware status that reports on them.
inline constexpr const char* p4rtName = "p4rt";

namespace StatePath {
inline constexpr const char* cxHwConfig = "corvex/dyninput/p4rt";
inline constexpr const char* cxHwStatusDir = "corvex/cxHwStatusDir/dyninputstatus";
// The same as it is mounted: with the slash, the entities below it come along.
inline constexpr const char* cxHwStatusDirMount = "corvex/cxHwStatusDir/dyninputstatus/";
inline constexpr const char* cxConfig = "corvex/configDir/p4rt";
inline constexpr const char* flowCounterDir = "openflow/corvexhwstatusdir";
inline constexpr const char* intfStatusDir = "interface/status/all";
inline constexpr const char* ipv4EncapTable = "routing/l2nexthopgroup/ipv4EncapTable";
}  // namespace StatePath

}  // namespace Ostra
