// The paths at which the library finds its entities in the state database. The hosting service
// places them there.
#pragma once

namespace Ostra {

// The library's name in the static-flow feature: the last element of its paths, and the name of the
// hardware status that reports on its flows.
inline constexpr const char* p4rtName = "p4rt";

namespace StatePath {
inline constexpr const char* cxHwConfig = "corvex/dyninput/p4rt";
inline constexpr const char* cxHwStatusDir = "corvex/cxHwStatusDir/dyninputstatus";
// The same as a mount: with the slash, the entities below it are mounted too.
inline constexpr const char* cxHwStatusDirMount = "corvex/cxHwStatusDir/dyninputstatus/";
inline constexpr const char* cxConfig = "corvex/configDir/p4rt";
inline constexpr const char* flowCounterDir = "openflow/corvexhwstatusdir";
inline constexpr const char* intfStatusDir = "interface/status/all";
inline constexpr const char* ipv4EncapTable = "routing/l2nexthopgroup/ipv4EncapTable";
}  // namespace StatePath

}  // namespace Ostra
