// Action-profile members and groups, and the encapsulation entries that members refer to, in the
// command language.
//
// Each function reads all words after the command and the kind of row.
// Throws: CommandError for anything that is not in the grammar.
#pragma once

#include "cli/language/Words.h"
#include "platform/NexthopGroup/Encap.h"
#include "platform/P4RuntimeRouting/Ecmp.h"

namespace Cli {

// ID port=N encap=N [dst-mac=MAC] [src-mac=MAC]
[[nodiscard]] P4RuntimeRouting::NexthopInfo parseMember(Words& words);

// ID members=ID,ID,... [weights=N,N,...]. The default of a weight is 1.
[[nodiscard]] P4RuntimeRouting::EcmpMemberList parseGroup(Words& words);

// Only the ID, for a delete; `what` is the kind of row.
[[nodiscard]] P4Runtime::MemberOrGroupId parseProfileId(Words& words, std::string_view what);

// ID src=IP dst=IP [ttl=N] [dscp=N] [type=ip-in-ip]. The default of TTL and DSCP is 0.
[[nodiscard]] NexthopGroup::EncapEntry parseEncap(Words& words);

}  // namespace Cli
