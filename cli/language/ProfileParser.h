// Action-profile members and groups, and the encapsulation entries that members refer to, in the
// command language.
//
// Thread and process rule: free functions without state. Each takes the words behind the command
// and the kind of row, reads them all, and throws CommandError for anything that is not in the
// grammar.
#pragma once

#include "cli/language/Words.h"
#include "platform/NexthopGroup/Encap.h"
#include "platform/P4RuntimeRouting/Ecmp.h"

namespace Cli {

// ID port=N encap=N [dst-mac=MAC] [src-mac=MAC]
[[nodiscard]] P4RuntimeRouting::NexthopInfo parseMember(Words& words);

// ID members=ID,ID,... [weights=N,N,...]. Weights that are not given are 1.
[[nodiscard]] P4RuntimeRouting::EcmpMemberList parseGroup(Words& words);

// ID and no more, for a delete; `what` is the kind of row.
[[nodiscard]] P4Runtime::MemberOrGroupId parseProfileId(Words& words, std::string_view what);

// ID src=IP dst=IP [ttl=N] [dscp=N] [type=ip-in-ip]. TTL and DSCP that are not given are 0.
[[nodiscard]] NexthopGroup::EncapEntry parseEncap(Words& words);

}  // namespace Cli
