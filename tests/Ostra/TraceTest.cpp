// What an operator reads: every line that the library traces, with its level, by the unit that it
// names.

#include "ContextFixture.h"
#include "Ostra/Trace.h"
#include "platform/Brisklog/TextTrace.h"

namespace OstraTest {
namespace {

using OpenFlowTable::FlowStatus;

class Trace : public Context {
 protected:
  Trace() {
    Ostra::traceHandle.levelIs(9);
    Brisklog::textSinkIs([this](const Brisklog::TextMessage& message) {
      EXPECT_EQ(message.handle, "Ostra");
      lines_[std::string{message.unit}].push_back(std::to_string(message.level) + " " +
                                                  std::string{message.text});
    });
  }
  ~Trace() override {
    Brisklog::textSinkIs(nullptr);
    Ostra::traceHandle.levelIs(-1);
  }

  // Compares the lines since the last call with a part of trace.expected.
  void expectLines(const std::string& title) {
    std::string text;
    for (const auto& [unit, lines] : std::exchange(lines_, {})) {
      text += unit + "\n";
      for (const std::string& line : lines) {
        text += "  " + line + "\n";
      }
    }
    EXPECT_EQ(text, expected(title)) << title;
  }
  void forgetLines() { lines_.clear(); }

 private:
  static std::string expected(const std::string& title) {
    std::ifstream file{OSTRA_TRACE_EXPECTED};
    std::string text;
    bool wanted = false;
    for (std::string line; std::getline(file, line);) {
      if (line.starts_with("== ")) {
        wanted = line == "== " + title;
      } else if (wanted) {
        text += line + "\n";
      }
    }
    return text;
  }

  std::map<std::string, Texts> lines_;
};

TEST_F(Trace, OfTheStart) {
  writeEncap();
  writeMember({.id = 5});
  writeGroup(3, {5});
  const auto hw = publishHwStatus();
  hw->flowStatsIs("flow-42", FlowStatus::programmed_);
  hw->groupStatsIs(3);
  make();
  Tessel::MountGroup mounts;
  context->doMounts(mounts);
  complete();
  expectLines("the start");
}

TEST_F(Trace, OfAFlow) {
  makeComplete();
  table = tables->ostraConfig(FlowTableIndex{0});
  OstraConfigEntry entry = flow(7, {});
  entry.flowKey.tableTypeIs(1);
  entry.flowKey.priorityGroupTypeIs(4);
  entry.flowKey.ingressPortIs(1, 0xFFFFFFFF);
  entry.flowKey.egressPortIs(2, 0xFFFFFFFF);
  entry.flowKey.etherTypeIs(0x86DD, 0xFFFF);
  entry.flowKey.isIpPacketIs(true, true);
  entry.flowKey.ip6SrcIs(*Korm::parseIpAddr("2001:db8::1"), *Korm::parseIpAddr("ffff::"));
  entry.flowKey.innerL3DataIs(9, 0xFF);
  entry.outputPortIs(3);
  entry.vlanGiven = true;
  entry.vlanId = 12;
  forgetLines();
  write(entry);
  expectLines("an insert of flow 7");
  entry.vlanGiven = false;
  write(entry);
  expectLines("a modify of flow 7");
  remove(entry);
  expectLines("a delete of flow 7");

  OstraConfigEntry second = flowInVrf(8, 1, 3);
  second.flowKey.etherTypeIs(0x0806, 0xFFFF);
  second.flowKey.arpTargetIs(*Korm::parseIpAddr("10.1.2.3"), *Korm::parseIpAddr("255.0.0.0"));
  write(second);
  second.vrfId = 4;
  table->entryIs(second);
  cxHwConfig->flowEntryDel("flow-8");
  remove(second);
  flowSm(0)->handleFlowConfig(plainKey(9));
  expectLines("flow 8 and its VRFs, and a key without a flow");
}

TEST_F(Trace, OfGroupsAndMembers) {
  makeComplete();
  forgetLines();
  writeEncap();
  writeMember({.id = 12});
  writeGroup(3, {12});
  writeMember({.id = 12, .encap = 8});
  expectLines("a group and a member, which is then refused");
  writeGroup(4, {});
  members->entryDel(12);
  groups->entryDel(3);
  groups->entryDel(4);
  expectLines("an empty group, and deletes");
}

TEST_F(Trace, OfTheHardwaresStatus) {
  makeComplete();
  const auto hw = publishHwStatus();
  forgetLines();
  hw->flowStatsIs("flow-7", FlowStatus::programming_);
  EXPECT_EQ(Ostra::flowIdFromName("flow-0"), 0U) << "a name that parses is not traced";
  context->ostraStatusDirSm()->inputs().ostraStatusInfo->dependentHandleToVrfMapIs(7, 5);
  hw->flowStatsDel("flow-7");
  hw->flowStatsIs("stray", FlowStatus::programming_);
  expectLines("the hardware's status of flows");
  writeGroup(5, {});
  forgetLines();
  hw->groupStatsIs(5, GroupStatus::hardwareFull_);
  hw->groupStatsIs(4294967302);
  hw->groupStatsIs(6);
  hw->groupStatsDel(5);
  cxHwStatusDir->entityIs("other", Korm::makePtr<Korm::Dir>("other"));
  cxHwStatusDir->entityDel(Ostra::p4rtName);
  expectLines("the hardware's status of groups, and its removal");
}

}  // namespace
}  // namespace OstraTest
