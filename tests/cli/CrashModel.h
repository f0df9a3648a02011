// What a switch that is killed and resumed must show, as the commands that were asked for make it.
#pragma once

#include "tests/Testing.h"

namespace CliTest {

// What is stored under a key: "flow 7", "member 3", "group 2".
struct Row {
  std::uint64_t handle = 0;  // 0: it was not told yet
  unsigned vrf = 0;          // of a flow; 0 is none
  unsigned trafficClass = 0;
  unsigned group = 0;
  bool refused = false;  // by the library, whatever else is there
  unsigned port = 0;     // of a member
  unsigned octet = 0;    // the last one of its MAC address
  std::vector<unsigned> members;
};

struct Model {
  std::map<std::string, Row> rows;
  std::map<unsigned, std::string> ports;
  unsigned encapOctet = 0;

  [[nodiscard]] std::string nextHop(unsigned member) const {
    const Row& row = rows.at("member " + std::to_string(member));
    return ports.at(row.port) + " 192.0.2." + std::to_string(encapOctet) +
           " 02:00:00:00:00:" + (row.octet < 16 ? "0" : "") + toHex(row.octet);
  }
  [[nodiscard]] bool accepts(const Row& row) const {
    return !row.refused &&
           (row.group == 0 || rows.count("group " + std::to_string(row.group)) != 0);
  }

  // All that can be seen of a switch which has started with these rows, but for the handles.
  [[nodiscard]] std::multiset<std::string> picture() const {
    std::multiset<std::string> lines;
    std::map<unsigned, unsigned> vrfs;
    for (const auto& [key, row] : rows) {
      const unsigned id = idOf(key);
      if (key.starts_with("flow")) {
        const std::string line = flowLine(id, row.vrf, row.trafficClass, row.group);
        lines.insert("stored in " + std::to_string(id % 3) + ": " + line);
        if (accepts(row)) {
          lines.insert(line);
          vrfs[row.vrf] += 1;
        }
      } else if (key.starts_with("member")) {
        lines.insert("group " + std::to_string(4294967296U + id) + ": " + nextHop(id));
      } else {
        std::string line = "group " + std::to_string(id) + ":";
        for (const unsigned member : row.members) {
          line += " " + nextHop(member);
        }
        lines.insert(line);
      }
    }
    vrfs.erase(0);
    for (const auto& [vrf, users] : vrfs) {
      lines.insert("vrf " + std::to_string(vrf) + ": " + std::to_string(users));
    }
    return lines;
  }

  static std::string flowLine(unsigned id, unsigned vrf, unsigned trafficClass, unsigned group) {
    return "flow " + std::to_string(id) + " vrf " + std::to_string(vrf) + " class " +
           std::to_string(trafficClass) + " group " + std::to_string(group);
  }
  static unsigned idOf(const std::string& key) {
    return static_cast<unsigned>(std::stoul(key.substr(key.find(' ') + 1)));
  }

 private:
  static std::string toHex(unsigned octet) {
    std::string digits;
    for (; octet > 0 || digits.empty(); octet /= 16) {
      digits.insert(digits.begin(), "0123456789abcdef"[octet % 16]);
    }
    return digits;
  }
};

// One change that was asked for, in the order of asking.
struct Step {
  enum class Kind { insert_, modify_, delete_, port_, encap_ };
  Kind kind = Kind::insert_;
  std::string key{};  // of a row
  Row row{};
  std::string intf{};    // of a port, whose number is row.port
  unsigned command = 0;  // whose echo says that it has been made

  [[nodiscard]] bool isWrite() const { return kind < Kind::port_; }
  // Whether the service takes it.
  [[nodiscard]] bool fits(const Model& model) const {
    return !isWrite() || (model.rows.count(key) == 0) == (kind == Kind::insert_);
  }
  void apply(Model& model, std::uint64_t handle) const {
    if (!fits(model)) {
      return;
    }
    if (kind == Kind::port_) {
      model.ports[row.port] = intf;
    } else if (kind == Kind::encap_) {
      model.encapOctet = row.octet;
    } else if (kind == Kind::delete_) {
      model.rows.erase(key);
    } else {
      const std::uint64_t kept = kind == Kind::insert_ ? handle : model.rows[key].handle;
      model.rows[key] = row;
      model.rows[key].handle = kept;
    }
  }
};

}  // namespace CliTest
