#include "cli/RightsOptions.h"

#include <grp.h>

#include <string>
#include <vector>

#include "cli/language/Values.h"

namespace Cli {

gid_t parseGroup(std::string_view text) {
  if (text.find_first_not_of("0123456789") == std::string_view::npos && !text.empty()) {
    return parseNumber<gid_t>(text, "--shm-group");
  }
  constexpr std::size_t room = std::size_t{1} << 16;
  std::vector<char> strings(room);
  group entry{};
  group* found = nullptr;
  ::getgrnam_r(std::string{text}.c_str(), &entry, strings.data(), strings.size(), &found);
  if (found == nullptr) {
    throw CommandError{"read --shm-group " + quoted(text) + ", expected a group of this machine"};
  }
  return found->gr_gid;
}

}  // namespace Cli
