// Table entries, members, groups and one shots: what is taken, what is refused and why, what is
// read back.
#include <regex>

#include "EngineFixture.h"

namespace P4rtTest {
namespace {

class EntryTest : public Programmed {};

TEST_F(EntryTest, IsReadBackAsWrittenInItsShortestForm) {
  Texts fields{"1 optional { value: '~\\001' }",
               "5 ternary { value: '~\\x08\\x00' mask: '\\xff\\xff' }",
               "6 ternary { value: '~\\000' mask: '\\x0f\\xff' }",
               "8 ternary { value: '\\x0a\\x00\\x00\\x00' mask: '\\xff\\x00\\x00\\x00' }",
               "25 optional { value: '~\\001' }"};
  // The entry with these bytes before each number that may have leading zeros.
  const auto spelled = [&fields](const std::string& zeros) {
    std::string text = "table_entry { table_id: 0x02000001 priority: 65536";
    for (const std::string& field : fields) {
      text += " match { field_id: " + field + " }";
    }
    text += does(5, {"~\\005", "~\\002"}) + " metadata: 'a\\000b' controller_metadata: 77 }";
    return std::regex_replace(text, std::regex{"~"}, zeros);
  };
  const std::string shortest = shown(spelled(""));
  std::reverse(fields.begin(), fields.end());
  const std::string written = spelled("\\000\\000\\000\\000");
  expectTaken({insert(written)});
  EXPECT_THAT(everything(), ElementsAre(shortest));
  // The same entry, however it is spelled.
  EXPECT_THAT(write({insert(written), remove(written)}), ElementsAre("ALREADY_EXISTS", "OK"));
}

TEST_F(EntryTest, GoesIntoItsFlowTableWithEveryAction) {
  const std::string macs = "\\002\\000\\000\\000\\000\\001";
  expectTaken({insert(acl(1, drop())), insert(acl(2, forward(2))),
               insert(acl(3, does(5, {"\\005", "\\001"}))), insert(acl(4, does(6, {"\\003"}))),
               insert(acl(5, does(7, {"\\004"}))),
               insert(acl(6, does(0x0b, {"\\012", macs, macs, "\\x0f\\xfe"}))),
               insert(acl(7, does(0x0c, {"\\001\\000", "\\002"}))),
               insert(acl(8, does(0x0d, {"Ethernet2"})))});
  Texts actions;
  for (const Sim::FlowView& flow : service->flows()) {
    const OpenFlowTable::Actions& does = flow.flow->actions();
    std::ostringstream line;
    line << does.has(OpenFlowTable::Action::drop_) << does.has(OpenFlowTable::Action::copyToCpu_)
         << does.has(OpenFlowTable::Action::decTtl_) << ' ' << does.outputIntf().name() << ' '
         << does.vrf() << ' ' << int{does.cpuTrafficClass()} << ' ' << int{does.trafficClass()}
         << ' ' << int{does.setDscp()} << ' ' << does.setEthSrc().text() << ' ' << does.vlanId()
         << ' ' << does.policer().rate << ' ' << does.policer().burst << ' '
         << int{does.policer().dropByColor[2]} << ' ' << does.ingrMirrorIntf().name();
    actions.push_back(line.str());
  }
  const std::string none = "00:00:00:00:00:00";
  EXPECT_THAT(
      actions,
      ElementsAre(
          "100  0 0 0 0 " + none + " 0 0 0 0 ", "000 Ethernet2 0 0 0 0 " + none + " 0 0 0 0 ",
          "000 Ethernet1 5 0 0 0 " + none + " 0 0 0 0 ", "010  0 3 0 0 " + none + " 0 0 0 0 ",
          "000  0 0 4 0 " + none + " 0 0 0 0 ", "001  0 0 0 10 02:00:00:00:00:01 4094 0 0 0 ",
          "000  0 0 0 0 " + none + " 0 256 2 1 ", "000  0 0 0 0 " + none + " 0 0 0 0 Ethernet2"));
}

// The updates that are refused, by outcome.
using Refusals = std::vector<std::pair<std::string, std::vector<Update>>>;

class RefusalTest : public Programmed {
 protected:
  // Entry 1 with a VRF; members 1 and 2; group 1 of both, group 3 of member 1; route 1 by group 1,
  // route 2 by member 2.
  RefusalTest() {
    expectTaken({insert(acl(1, does(4, {"\\007"}))), insert(member(1)), insert(member(2)),
                 insert(group(1, {{1, 2}, {2, 1}})), insert(group(3, {{1, 1}})),
                 insert(route(1, "action_profile_group_id: 1")),
                 insert(route(2, "action_profile_member_id: 2"))});
  }

  // Expects each to be refused, alone and between valid updates, and to change nothing.
  void expectRefused(const Refusals& refusals) {
    const Texts before = everything();
    for (const auto& [outcome, updates] : refusals) {
      for (const Update& refused : updates) {
        SCOPED_TRACE(refused.ShortDebugString());
        EXPECT_THAT(write({refused}), ElementsAre(outcome));
        EXPECT_THAT(write({insert(acl(900, drop())), refused, remove(acl(900))}),
                    ElementsAre("OK", outcome, "OK"));
        EXPECT_EQ(everything(), before);
        engine->verify();
      }
    }
  }
};

std::string entry(std::string_view rest) {
  return "table_entry { table_id: 0x02000001 " + std::string{rest} + " }";
}
const std::string ether =
    " match { field_id: 5 ternary { value: '\\x08\\x00' mask: '\\xff\\xff' } }";

TEST_F(RefusalTest, KeysOfEntries) {
  const std::string fine = drop() + " priority: 5 ";
  const auto keyed = [&fine](const std::string& field) {
    return insert(entry(fine + "match { " + field + " }"));
  };
  expectRefused({
      {"INVALID_ARGUMENT",
       {update(Update::UNSPECIFIED, acl(2, drop())), update(Update::INSERT, ""),
        insert("table_entry { " + fine + "}"), keyed("field_id: 99 ternary {}"),
        insert(entry(fine + ether + ether)), keyed("field_id: 5 exact { value: '\\001' }"),
        keyed("field_id: 5"), keyed("field_id: 1 ternary { value: '1' mask: '1' }"),
        keyed("field_id: 5 ternary { value: '\\000' mask: '\\000' }"),
        keyed("field_id: 5 ternary { value: '\\003' mask: '\\001' }"),
        insert(entry(drop() + ether)), insert(entry(drop() + ether + " priority: -1"))}},
      {"NOT_FOUND",
       {insert("table_entry { table_id: 0x02000099 " + fine + "}"), modify(acl(2, drop())),
        remove(acl(2)), remove(acl(1, "", 11))}},
      {"OUT_OF_RANGE",
       {keyed("field_id: 5 ternary { mask: '\\001' }"),
        keyed("field_id: 9 ternary { value: '\\100' mask: '\\100' }"),
        keyed("field_id: 12 ternary { value: '12345678901234567' mask: '\\001' }"),
        keyed("field_id: 6 ternary { value: '\\x0f\\xff' mask: '\\x0f\\xff' }"),
        insert(entry(drop() + ether + " priority: 65537"))}},
      {"INVALID_ARGUMENT/17", {keyed("field_id: 5 ternary { value: '\\010' mask: '\\010' }")}},
      {"INVALID_ARGUMENT/13", {keyed("field_id: 8 ternary { value: '\\001' mask: '\\001' }")}},
      {"INVALID_ARGUMENT/15", {keyed("field_id: 1 optional { value: '\\000' }")}},
      {"ALREADY_EXISTS", {insert(acl(1, drop()))}},
  });
}

TEST_F(RefusalTest, ActionsOfEntries) {
  expectRefused({
      {"INVALID_ARGUMENT",
       {insert(acl(2)), insert(acl(2, "action { action { " + nexthop() + " } }")),
        insert(acl(2, does(0x77, {}))), insert(acl(2, does(5, {"\\001"}))),
        insert(acl(2, does(4, {"\\001", "\\001"}))),
        insert(acl(2,
                   "action { action { action_id: 0x01000004 params { param_id: 1 value: '1' } "
                   "params { param_id: 1 value: '1' } } }")),
        insert(acl(2, "action { action_profile_member_id: 1 }")),
        insert(acl(2, "action { " + oneShot({{nexthop(), 1}}) + " }")),
        insert(route(3, "action { " + nexthop() + " }")), insert(acl(2, does(8, {"\\000"}))),
        insert(route(3, oneShot({{nexthop(), 1}}))), insert(acl(2, drop() + "is_const: true")),
        insert(acl(2, drop() + "meter_config {}")), modify(acl(1, drop() + "idle_timeout_ns: 1")),
        insert(acl(2, drop() + "time_since_last_hit {}")),
        insert(entry("is_default_action: true " + does(1, {}))),
        remove(entry("is_default_action: true")),
        modify(entry("is_default_action: true priority: 1"))}},
      {"PERMISSION_DENIED",
       {insert(acl(2, does(1, {}))), modify(entry("is_default_action: true " + does(1, {})))}},
      {"OUT_OF_RANGE",
       {insert(acl(2, does(4, {""}))), insert(acl(2, does(4, {"\\001\\000\\000\\000"}))),
        insert(acl(2, does(4, {"\\xff\\xff\\xff"}))), insert(acl(2, does(7, {"\\021"}))),
        insert(acl(2, does(6, {"\\021"}))),
        insert(acl(2, does(0x0b, {"\\001", "\\001", "\\001", "\\x0f\\xff"}))),
        insert(acl(2, does(0x0d, {""}))), insert(acl(2, does(0x0d, {"Ethernet1/Ethernet1/Ethe"}))),
        insert(acl(2, does(0x0d, {std::string(300, 'x')})))}},
      {"INVALID_ARGUMENT/15",
       {insert(acl(2, forward(0))), modify(acl(1, forward(0))),
        insert(acl(2, does(5, {"\\011", "\\000"})))}},
      {"NOT_FOUND",
       {insert(route(3, "action_profile_group_id: 2")),
        modify(route(1, "action_profile_member_id: 3")), insert(acl(2, does(8, {"\\002"}))),
        insert(acl(2, does(9, {"\\003"})))}},
      {"UNIMPLEMENTED",
       {insert(acl(2, drop() + "counter_data { packet_count: 1 }")),
        modify(acl(1, drop() + "counter_data {}"))}},
  });
}

TEST_F(RefusalTest, MembersGroupsAndOtherEntities) {
  const auto watched = [](const std::string& watch) {
    return "action_profile_group { action_profile_id: 0x11000001 group_id: 2 max_size: 8"
           " members { member_id: 1 weight: 1 " +
           watch + " } }";
  };
  const std::string counter = "direct_counter_entry { " + acl(1) + " data { packet_count: 1 } }";
  expectRefused({
      {"INVALID_ARGUMENT",
       {insert(member(0)), insert("action_profile_member { member_id: 3 }"),
        insert("action_profile_member { action_profile_id: 0x11000001 member_id: 3 }"),
        insert(member(3, action(2, {}))), insert(group(0, {})), insert(group(2, {{0, 1}})),
        insert(group(2, {{1, 1}, {2, 1}, {1, 1}})), insert(group(2, {{1, 0}})),
        modify(group(1, {{1, -1}})), insert(group(2, {{1, 1}}, 0)),
        insert(group(2, {{1, 1}}, 1025)), modify(group(1, {{1, 1}}, 9)), insert(counter)}},
      {"NOT_FOUND",
       {insert("action_profile_member { action_profile_id: 0x11000009 member_id: 3 }"),
        modify("direct_counter_entry { " + acl(2) + " }"), modify(member(3)), remove(member(3)),
        modify(group(2, {})), insert(group(2, {{3, 1}}))}},
      {"ALREADY_EXISTS", {insert(member(1)), insert(group(1, {}))}},
      {"FAILED_PRECONDITION", {remove(member(1)), remove(group(1, {}))}},
      {"FAILED_PRECONDITION/15", {insert(member(3, nexthop(8)))}},
      {"INVALID_ARGUMENT/15", {insert(member(3, nexthop(9, 0))), modify(member(1, nexthop(9, 0)))}},
      {"UNIMPLEMENTED",
       {modify("direct_counter_entry { " + acl(1) + " }"), insert(watched("watch: 1")),
        insert(watched("watch_port: '1'")), modify(group(1, {})), insert("meter_entry {}"),
        modify("counter_entry {}"), modify("direct_meter_entry {}"),
        insert("packet_replication_engine_entry {}"), modify("value_set_entry {}"),
        modify("register_entry {}"), insert("digest_entry {}"), insert("extern_entry {}")}},
      {"RESOURCE_EXHAUSTED",
       {modify(group(1, {{1, 5}, {2, 4}})), modify(group(1, {{1, 2147483647}}))}},
  });
}

TEST_F(RefusalTest, AFullTableAndAProgramWithoutGroupsToSpare) {
  P4Info info = shippedP4Info();
  info.mutable_tables(0)->set_size(2);
  info.mutable_action_profiles(0)->set_size(6);
  ASSERT_TRUE(setPipeline(SetPipeline::RECONCILE_AND_COMMIT, info).ok());
  expectRefused({{"RESOURCE_EXHAUSTED", {modify(group(3, {{1, 4}})), insert(group(2, {{1, 3}}))}}});
  // An insert that fails takes no place.
  EXPECT_THAT(write({insert(acl(2, forward(0))), insert(acl(3, drop())), insert(acl(4, drop()))}),
              ElementsAre("INVALID_ARGUMENT/15", "OK", "RESOURCE_EXHAUSTED"));
  expectTaken({modify(group(3, {{1, 3}}))});
  EXPECT_THAT(write({remove(acl(1))}, WriteRequest::DATAPLANE_ATOMIC),
              ElementsAre("UNIMPLEMENTED"));
}

TEST_F(EntryTest, WeightsRepeatAMemberInTheSwitch) {
  expectTaken({insert(member(1)), insert(member(2)), insert(group(7, {{1, 3}, {2, 1}}, 1024))});
  ASSERT_EQ(service->groups().size(), 3U);
  EXPECT_EQ(service->groups().front()->buckets(), 4U);
  expectTaken({modify(group(7, {{2, 1024}}, 1024))});
  EXPECT_EQ(service->groups().front()->buckets(), 1024U);
}

TEST_F(EntryTest, OneShotsGiveBackTheirIdsAndTheirRoom) {
  const std::string two = oneShot({{nexthop(), 2}, {nexthop(9, 2), 1}});
  const std::string one = oneShot({{nexthop(9, 2), 3}});
  expectTaken({insert(route(1, two)), insert(route(2, one))});
  EXPECT_EQ(service->groups().size(), 5U);
  EXPECT_THAT(write({insert(route(3, oneShot({}))), insert(route(3, oneShot({{nexthop(), 0}}))),
                     insert(route(3, oneShot({{nexthop(), 1025}}))),
                     insert(route(3, oneShot({{action(2, {}), 1}}))),
                     insert(route(3, oneShot({{nexthop(), 1}, {nexthop(8), 1}})))}),
              ElementsAre("INVALID_ARGUMENT", "INVALID_ARGUMENT", "RESOURCE_EXHAUSTED",
                          "INVALID_ARGUMENT", "FAILED_PRECONDITION/15"));
  // The ids in the switch are used again.
  for (int count = 0; count < 20; ++count) {
    expectTaken({modify(route(1, count % 2 == 0 ? one : two))});
  }
  for (const auto* const group : service->groups()) {
    EXPECT_LT(group->id() % 0x80000000U, 9U);
  }
  // What is replaced makes room.
  P4Info info = shippedP4Info();
  info.mutable_action_profiles(0)->set_size(6);
  ASSERT_TRUE(setPipeline(SetPipeline::RECONCILE_AND_COMMIT, info).ok());
  EXPECT_THAT(write({modify(route(1, one)), modify(route(2, oneShot({{nexthop(), 4}})))}),
              ElementsAre("OK", "RESOURCE_EXHAUSTED"));
  expectTaken({remove(route(1, "")), remove(route(2, "")), insert(member(1))});
  EXPECT_EQ(service->groups().size(), 1U);
}

}  // namespace
}  // namespace P4rtTest
