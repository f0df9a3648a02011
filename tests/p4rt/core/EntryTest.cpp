// Table entries, members, groups and one shots: what is taken, what is refused and why, what is read back.
#include "EngineFixture.h"

namespace P4rtTest {
namespace {

class EntryTest : public Programmed {};

TEST_F(EntryTest, IsReadBackAsWrittenInItsShortestForm) {
  const std::string written =
      "table_entry { table_id: 0x02000001 priority: 65536"
      " match { field_id: 5 ternary { value: '\\000\\x08\\x00' mask: '\\xff\\xff' } }"
      " match { field_id: 8 ternary { value: '\\x0a\\x00\\x00\\x00' mask: '\\xff\\x00\\x00\\x00' } "
      "}"
      " match { field_id: 6 ternary { value: '\\000\\005' mask: '\\x0f\\xff' } }"
      " match { field_id: 1 optional { value: '\\000\\000\\000\\001' } }"
      " match { field_id: 25 optional { value: '\\000\\001' } }"
      " action { action { action_id: 0x01000005"
      " params { param_id: 2 value: '\\000\\000\\000\\002' }"
      " params { param_id: 1 value: '\\000\\000\\000\\000\\005' } } }"
      " metadata: 'a\\000b' controller_metadata: 77 }";
  EXPECT_THAT(write({insert(written)}), ElementsAre("OK"));
  EXPECT_THAT(everything(),
              ElementsAre(shown(
                  ("table_entry { table_id: 0x02000001 priority: 65536"
                   " match { field_id: 5 ternary { value: '\\x08\\x00' mask: '\\xff\\xff' } }"
                   " match { field_id: 8 ternary { value: '\\x0a\\x00\\x00\\x00' mask: "
                   "'\\xff\\x00\\x00\\x00' } }"
                   " match { field_id: 6 ternary { value: '\\005' mask: '\\x0f\\xff' } }"
                   " match { field_id: 1 optional { value: '\\001' } }"
                   " match { field_id: 25 optional { value: '\\001' } }"
                   " action { action { action_id: 0x01000005 params { param_id: 1 value: '\\005' }"
                   " params { param_id: 2 value: '\\002' } } }"
                   " metadata: 'a\\000b' controller_metadata: 77 }"))));
  // The same entry, however it is spelled.
  EXPECT_THAT(write({insert(written)}), ElementsAre("ALREADY_EXISTS"));
}

TEST_F(EntryTest, IsModifiedAsAWholeButForAnActionThatIsNotGiven) {
  ASSERT_THAT(write({insert(acl(1, drop() + "metadata: 'm'"))}), ElementsAre("OK"));
  EXPECT_THAT(write({modify(acl(1, does(4, {"\\007"})))}), ElementsAre("OK"));
  EXPECT_THAT(everything(), ElementsAre(shown(acl(1, does(4, {"\\007"})))));
  EXPECT_THAT(write({modify(acl(1, "metadata: 'n'"))}), ElementsAre("OK"));
  EXPECT_THAT(everything(), ElementsAre(shown(acl(1, does(4, {"\\007"}) + "metadata: 'n'"))));
  // A delete looks at the key alone.
  EXPECT_THAT(write({remove(acl(1, "action { action_profile_member_id: 5 } is_const: true"))}),
              ElementsAre("OK"));
  EXPECT_THAT(everything(), IsEmpty());
}

TEST_F(EntryTest, GoesIntoItsFlowTableWithEveryAction) {
  const std::string macs = "\\002\\000\\000\\000\\000\\001";
  ASSERT_THAT(write({insert(acl(1, drop())), insert(acl(2, forward(2))),
                     insert(acl(3, does(5, {"\\005", "\\001"}))),
                     insert(acl(4, does(6, {"\\003"}))), insert(acl(5, does(7, {"\\004"}))),
                     insert(acl(6, does(0x0b, {"\\012", macs, macs, "\\x0f\\xfe"}))),
                     insert(acl(7, does(0x0c, {"\\001\\000", "\\002"}))),
                     insert(acl(8, does(0x0d, {"Ethernet2"})))}),
              ElementsAre("OK"));
  Words actions;
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

struct Refusal {
  std::string what;
  Update given;
  std::string outcome;
};

class RefusalTest : public Programmed {
 protected:
  // Entry 1 with a VRF; members 1 and 2, group 1 of both, group 3 of member 1, routes 1 and 2 by group 1.
  RefusalTest() {
    EXPECT_THAT(write({insert(acl(1, does(4, {"\\007"}))), insert(member(1)), insert(member(2)),
                       insert(group(1, {{1, 2}, {2, 1}})), insert(group(3, {{1, 1}})),
                       insert(route(1, "action_profile_group_id: 1")),
                       insert(route(2, "action_profile_member_id: 2"))}),
                ElementsAre("OK"));
  }

  // Each is refused, alone and between others that are not, and changes nothing.
  void expectRefused(const std::vector<Refusal>& refusals) {
    const Words before = everything();
    for (const Refusal& refusal : refusals) {
      EXPECT_THAT(write({refusal.given}), ElementsAre(refusal.outcome)) << refusal.what;
      EXPECT_THAT(write({insert(acl(900, drop())), refusal.given, remove(acl(900))}),
                  ElementsAre("OK", refusal.outcome, "OK"))
          << refusal.what;
      EXPECT_EQ(everything(), before) << refusal.what;
      engine->verify();
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
  expectRefused({
      {"no type", update(Update::UNSPECIFIED, acl(2, drop())), "INVALID_ARGUMENT"},
      {"no entity", update(Update::INSERT, ""), "INVALID_ARGUMENT"},
      {"no table", insert("table_entry { " + fine + "}"), "INVALID_ARGUMENT"},
      {"unknown table", insert("table_entry { table_id: 0x02000099 " + fine + "}"), "NOT_FOUND"},
      {"unknown field", insert(entry(fine + "match { field_id: 99 ternary {} }")),
       "INVALID_ARGUMENT"},
      {"field twice", insert(entry(fine + ether + ether)), "INVALID_ARGUMENT"},
      {"wrong kind", insert(entry(fine + "match { field_id: 5 exact { value: '\\001' } }")),
       "INVALID_ARGUMENT"},
      {"no kind", insert(entry(fine + "match { field_id: 5 }")), "INVALID_ARGUMENT"},
      {"ternary port",
       insert(entry(fine + "match { field_id: 1 ternary { value: '1' mask: '1' } }")),
       "INVALID_ARGUMENT"},
      {"mask 0",
       insert(entry(fine + "match { field_id: 5 ternary { value: '\\000' mask: '\\000' } }")),
       "INVALID_ARGUMENT"},
      {"bits outside the mask",
       insert(entry(fine + "match { field_id: 5 ternary { value: '\\003' mask: '\\001' } }")),
       "INVALID_ARGUMENT"},
      {"empty value", insert(entry(fine + "match { field_id: 5 ternary { mask: '\\001' } }")),
       "OUT_OF_RANGE"},
      {"too wide",
       insert(entry(fine + "match { field_id: 9 ternary { value: '\\100' mask: '\\100' } }")),
       "OUT_OF_RANGE"},
      {"17 bytes",
       insert(entry(fine +
                    "match { field_id: 12 ternary { value: '12345678901234567' mask: '\\001' } }")),
       "OUT_OF_RANGE"},
      {"VLAN 4095",
       insert(entry(fine +
                    "match { field_id: 6 ternary { value: '\\x0f\\xff' mask: '\\x0f\\xff' } }")),
       "OUT_OF_RANGE"},
      {"priority 0", insert(entry(drop() + ether)), "INVALID_ARGUMENT"},
      {"priority below 0", insert(entry(drop() + ether + " priority: -1")), "INVALID_ARGUMENT"},
      {"priority too high", insert(entry(drop() + ether + " priority: 65537")), "OUT_OF_RANGE"},
      {"ether type masked",
       insert(entry(fine + "match { field_id: 5 ternary { value: '\\010' mask: '\\010' } }")),
       "INVALID_ARGUMENT/17"},
      {"address without its ether type",
       insert(entry(fine + "match { field_id: 8 ternary { value: '\\001' mask: '\\001' } }")),
       "INVALID_ARGUMENT/13"},
      {"port 0", insert(entry(fine + "match { field_id: 1 optional { value: '\\000' } }")),
       "INVALID_ARGUMENT/15"},
      {"there already", insert(acl(1, drop())), "ALREADY_EXISTS"},
      {"not there", modify(acl(2, drop())), "NOT_FOUND"},
      {"not there, to be deleted", remove(acl(2)), "NOT_FOUND"},
      {"another priority", remove(acl(1, "", 11)), "NOT_FOUND"},
  });
}

TEST_F(RefusalTest, ActionsOfEntries) {
  expectRefused({
      {"none", insert(acl(2)), "INVALID_ARGUMENT"},
      {"of another table", insert(acl(2, "action { action { " + nexthop() + " } }")),
       "INVALID_ARGUMENT"},
      {"unknown", insert(acl(2, does(0x77, {}))), "INVALID_ARGUMENT"},
      {"for defaults only", insert(acl(2, does(1, {}))), "PERMISSION_DENIED"},
      {"parameter missing", insert(acl(2, does(5, {"\\001"}))), "INVALID_ARGUMENT"},
      {"parameter extra", insert(acl(2, does(4, {"\\001", "\\001"}))), "INVALID_ARGUMENT"},
      {"parameter twice",
       insert(acl(2,
                  "action { action { action_id: 0x01000004 params { param_id: 1 value: '1' } "
                  "params { param_id: 1 value: '1' } } }")),
       "INVALID_ARGUMENT"},
      {"parameter empty", insert(acl(2, does(4, {""}))), "OUT_OF_RANGE"},
      {"parameter too wide", insert(acl(2, does(4, {"\\001\\000\\000\\000"}))), "OUT_OF_RANGE"},
      {"no VRF", insert(acl(2, does(4, {"\\xff\\xff\\xff"}))), "OUT_OF_RANGE"},
      {"traffic class 17", insert(acl(2, does(7, {"\\021"}))), "OUT_OF_RANGE"},
      {"traffic class 17 of the CPU", insert(acl(2, does(6, {"\\021"}))), "OUT_OF_RANGE"},
      {"VLAN 4095", insert(acl(2, does(0x0b, {"\\001", "\\001", "\\001", "\\x0f\\xff"}))),
       "OUT_OF_RANGE"},
      {"an interface without a name", insert(acl(2, does(0x0d, {""}))), "OUT_OF_RANGE"},
      {"an interface of 24 characters", insert(acl(2, does(0x0d, {"Ethernet1/Ethernet1/Ethe"}))),
       "OUT_OF_RANGE"},
      {"an interface of 300 characters", insert(acl(2, does(0x0d, {std::string(300, 'x')}))),
       "OUT_OF_RANGE"},
      {"port 0", insert(acl(2, forward(0))), "INVALID_ARGUMENT/15"},
      {"port 0 for what stands", modify(acl(1, forward(0))), "INVALID_ARGUMENT/15"},
      {"a VRF and port 0", insert(acl(2, does(5, {"\\011", "\\000"}))), "INVALID_ARGUMENT/15"},
      {"member of a direct table", insert(acl(2, "action { action_profile_member_id: 1 }")),
       "INVALID_ARGUMENT"},
      {"one shot of a direct table", insert(acl(2, "action { " + oneShot({{nexthop(), 1}}) + " }")),
       "INVALID_ARGUMENT"},
      {"own action of an indirect table", insert(route(3, "action { " + nexthop() + " }")),
       "INVALID_ARGUMENT"},
      {"unknown group", insert(route(3, "action_profile_group_id: 2")), "NOT_FOUND"},
      {"unknown member", modify(route(1, "action_profile_member_id: 3")), "NOT_FOUND"},
      {"unknown group of an action", insert(acl(2, does(8, {"\\002"}))), "NOT_FOUND"},
      {"unknown member of an action", insert(acl(2, does(9, {"\\003"}))), "NOT_FOUND"},
      {"group 0 of an action", insert(acl(2, does(8, {"\\000"}))), "INVALID_ARGUMENT"},
      {"one shot beside groups", insert(route(3, oneShot({{nexthop(), 1}}))), "INVALID_ARGUMENT"},
      {"is_const", insert(acl(2, drop() + "is_const: true")), "INVALID_ARGUMENT"},
      {"meter", insert(acl(2, drop() + "meter_config {}")), "INVALID_ARGUMENT"},
      {"idle timeout", modify(acl(1, drop() + "idle_timeout_ns: 1")), "INVALID_ARGUMENT"},
      {"last hit", insert(acl(2, drop() + "time_since_last_hit {}")), "INVALID_ARGUMENT"},
      {"counter", insert(acl(2, drop() + "counter_data { packet_count: 1 }")), "UNIMPLEMENTED"},
      {"counter of what stands", modify(acl(1, drop() + "counter_data {}")), "UNIMPLEMENTED"},
      {"default inserted", insert(entry("is_default_action: true " + does(1, {}))),
       "INVALID_ARGUMENT"},
      {"default deleted", remove(entry("is_default_action: true")), "INVALID_ARGUMENT"},
      {"default with a key", modify(entry("is_default_action: true priority: 1")),
       "INVALID_ARGUMENT"},
      {"default", modify(entry("is_default_action: true " + does(1, {}))), "PERMISSION_DENIED"},
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
      {"member 0", insert(member(0)), "INVALID_ARGUMENT"},
      {"member of no profile", insert("action_profile_member { member_id: 3 }"),
       "INVALID_ARGUMENT"},
      {"member of another profile",
       insert("action_profile_member { action_profile_id: 0x11000009 member_id: 3 }"), "NOT_FOUND"},
      {"member without action",
       insert("action_profile_member { action_profile_id: 0x11000001 member_id: 3 }"),
       "INVALID_ARGUMENT"},
      {"member with an entry's action", insert(member(3, action(2, {}))), "INVALID_ARGUMENT"},
      {"member there already", insert(member(1)), "ALREADY_EXISTS"},
      {"member not there", modify(member(3)), "NOT_FOUND"},
      {"member not there, to be deleted", remove(member(3)), "NOT_FOUND"},
      {"member of a group", remove(member(1)), "FAILED_PRECONDITION"},
      {"member without encapsulation", insert(member(3, nexthop(8))), "FAILED_PRECONDITION/15"},
      {"member of port 0", insert(member(3, nexthop(9, 0))), "INVALID_ARGUMENT/15"},
      {"member that stands, to port 0", modify(member(1, nexthop(9, 0))), "INVALID_ARGUMENT/15"},
      {"group 0", insert(group(0, {})), "INVALID_ARGUMENT"},
      {"group there already", insert(group(1, {})), "ALREADY_EXISTS"},
      {"group not there", modify(group(2, {})), "NOT_FOUND"},
      {"group in use", remove(group(1, {})), "FAILED_PRECONDITION"},
      {"group of an unknown member", insert(group(2, {{3, 1}})), "NOT_FOUND"},
      {"group of member 0", insert(group(2, {{0, 1}})), "INVALID_ARGUMENT"},
      {"group of a member twice", insert(group(2, {{1, 1}, {2, 1}, {1, 1}})), "INVALID_ARGUMENT"},
      {"weight 0", insert(group(2, {{1, 0}})), "INVALID_ARGUMENT"},
      {"weight below 0", modify(group(1, {{1, -1}})), "INVALID_ARGUMENT"},
      {"watch", insert(watched("watch: 1")), "UNIMPLEMENTED"},
      {"watch port", insert(watched("watch_port: '1'")), "UNIMPLEMENTED"},
      {"size 0", insert(group(2, {{1, 1}}, 0)), "INVALID_ARGUMENT"},
      {"size above the profile's", insert(group(2, {{1, 1}}, 1025)), "INVALID_ARGUMENT"},
      {"another size", modify(group(1, {{1, 1}}, 9)), "INVALID_ARGUMENT"},
      {"more than its size", modify(group(1, {{1, 5}, {2, 4}})), "RESOURCE_EXHAUSTED"},
      {"an enormous weight", modify(group(1, {{1, 2147483647}})), "RESOURCE_EXHAUSTED"},
      {"no members any more", modify(group(1, {})), "UNIMPLEMENTED"},
      {"counter inserted", insert(counter), "INVALID_ARGUMENT"},
      {"meter", insert("meter_entry {}"), "UNIMPLEMENTED"},
      {"counter", modify("counter_entry {}"), "UNIMPLEMENTED"},
      {"direct meter", modify("direct_meter_entry {}"), "UNIMPLEMENTED"},
      {"multicast", insert("packet_replication_engine_entry {}"), "UNIMPLEMENTED"},
      {"value set", modify("value_set_entry {}"), "UNIMPLEMENTED"},
      {"register", modify("register_entry {}"), "UNIMPLEMENTED"},
      {"digest", insert("digest_entry {}"), "UNIMPLEMENTED"},
      {"extern", insert("extern_entry {}"), "UNIMPLEMENTED"},
  });
  std::string inCounter = acl(1);
  EXPECT_THAT(write({modify("direct_counter_entry { " + inCounter + " }"),
                     modify("direct_counter_entry { " + acl(2) + " }")}),
              ElementsAre("UNIMPLEMENTED", "NOT_FOUND"));
}

TEST_F(RefusalTest, AFullTableAndAProgramWithoutGroupsToSpare) {
  auto info = shippedP4Info();
  info.mutable_tables(0)->set_size(2);
  info.mutable_action_profiles(0)->set_size(6);
  ASSERT_TRUE(setPipeline(SetPipeline::RECONCILE_AND_COMMIT, &info).ok());
  expectRefused({{"more weight than there is", modify(group(3, {{1, 4}})), "RESOURCE_EXHAUSTED"},
                 {"another group", insert(group(2, {{1, 3}})), "RESOURCE_EXHAUSTED"}});
  // What fails frees its place again.
  EXPECT_THAT(write({insert(acl(2, forward(0))), insert(acl(3, drop())), insert(acl(4, drop()))}),
              ElementsAre("INVALID_ARGUMENT/15", "OK", "RESOURCE_EXHAUSTED"));
  EXPECT_THAT(write({modify(group(3, {{1, 3}}))}), ElementsAre("OK"));
}

TEST_F(RefusalTest, ReferencesAreHeldByEachUser) {
  ASSERT_THAT(write({insert(acl(5, does(8, {"\\003"}))), insert(acl(6, does(9, {"\\002"})))}),
              ElementsAre("OK"));
  EXPECT_THAT(write({remove(route(1, "")), remove(route(2, "")), remove(group(1, {})),
                     remove(group(3, {})), remove(member(2)), remove(member(1)), remove(acl(5)),
                     remove(group(3, {})), remove(member(1)), remove(acl(6)), remove(member(2))}),
              ElementsAre("OK", "OK", "OK", "FAILED_PRECONDITION", "FAILED_PRECONDITION",
                          "FAILED_PRECONDITION", "OK", "OK", "OK", "OK", "OK"));
}

TEST_F(EntryTest, WeightsRepeatAMemberInTheSwitch) {
  ASSERT_THAT(write({insert(member(1)), insert(member(2)), insert(group(7, {{1, 3}, {2, 1}}, 1024)),
                     insert(group(8, {}, 1))}),
              ElementsAre("OK"));
  ASSERT_EQ(service->groups().size(), 3U);
  EXPECT_EQ(service->groups().front()->buckets(), 4U);
  EXPECT_THAT(write({modify(group(7, {{2, 1024}}, 1024))}), ElementsAre("OK"));
  EXPECT_EQ(service->groups().front()->buckets(), 1024U);
  EXPECT_THAT(read({"action_profile_group { group_id: 7 }"}).entities,
              ElementsAre(shown(group(7, {{2, 1024}}, 1024))));
  // A group without members is stored, and an entry cannot use it yet.
  EXPECT_THAT(write({insert(acl(3, does(0x0a, {"\\010", "\\005"})))}),
              ElementsAre("FAILED_PRECONDITION/16"));
  EXPECT_THAT(
      write({modify(group(8, {{1, 1}}, 1)), insert(acl(3, does(0x0a, {"\\010", "\\005"})))}),
      ElementsAre("OK"));
}

TEST_F(EntryTest, OneShotsAreReadBackAndLeaveNothing) {
  const std::string two = oneShot({{nexthop(), 2}, {nexthop(9, 2), 1}});
  const std::string one = oneShot({{nexthop(9, 2), 3}});
  EXPECT_THAT(write({insert(route(1, two)), insert(route(2, one)), insert(route(1, one))}),
              ElementsAre("OK", "OK", "ALREADY_EXISTS"));
  EXPECT_EQ(service->groups().size(), 5U);
  EXPECT_THAT(everything(), ElementsAre(shown(route(1, two)), shown(route(2, one))));
  EXPECT_THAT(write({insert(member(1)), insert(group(1, {})),
                     insert(route(3, "action_profile_group_id: 1"))}),
              ElementsAre("INVALID_ARGUMENT", "INVALID_ARGUMENT", "INVALID_ARGUMENT"));
  EXPECT_THAT(write({insert(route(3, oneShot({}))), insert(route(3, oneShot({{nexthop(), 0}}))),
                     insert(route(3, oneShot({{nexthop(), 1025}}))),
                     insert(route(3, oneShot({{action(2, {}), 1}}))),
                     insert(route(3, oneShot({{nexthop(), 1}, {nexthop(8), 1}})))}),
              ElementsAre("INVALID_ARGUMENT", "INVALID_ARGUMENT", "RESOURCE_EXHAUSTED",
                          "INVALID_ARGUMENT", "FAILED_PRECONDITION/15"));
  engine->verify();
  // Other next hops; then other metadata, with the hidden group left alone.
  EXPECT_THAT(write({modify(route(1, one)), modify(route(1, two)), modify(route(1, one)),
                     modify(route(2, oneShot({{nexthop(8), 1}})))}),
              ElementsAre("OK", "OK", "OK", "FAILED_PRECONDITION/15"));
  engine->verify();
  std::string kept = route(2, one);
  kept.replace(kept.find("action {"), std::string::npos, "metadata: 'm' }");
  EXPECT_THAT(write({modify(kept)}), ElementsAre("OK"));
  EXPECT_EQ(service->groups().size(), 4U);
  EXPECT_THAT(write({remove(route(1, "")), remove(route(2, "")), insert(member(1))}),
              ElementsAre("OK"));
  EXPECT_EQ(service->groups().size(), 1U);
}

TEST_F(EntryTest, ADuplicateInABatchMeetsWhatTheFirstHasLeft) {
  EXPECT_THAT(write({insert(acl(1, drop())), insert(acl(1, forward(1))), modify(acl(1, forward(1))),
                     modify(acl(1, forward(0))), modify(acl(1, forward(2))), remove(acl(1)),
                     remove(acl(1)), insert(acl(1, forward(0))), insert(acl(1, drop())),
                     modify(acl(1, does(4, {"\\003"}))), modify(acl(1, "metadata: 'x'"))}),
              ElementsAre("OK", "ALREADY_EXISTS", "OK", "INVALID_ARGUMENT/15", "OK", "OK",
                          "NOT_FOUND", "INVALID_ARGUMENT/15", "OK", "OK", "OK"));
  EXPECT_THAT(everything(), ElementsAre(shown(acl(1, does(4, {"\\003"}) + "metadata: 'x'"))));
}

TEST_F(EntryTest, RollbackUndoesAllInReverse) {
  const auto rollback = p4::v1::WriteRequest::ROLLBACK_ON_ERROR;
  ASSERT_THAT(write({insert(member(1)), insert(group(1, {{1, 1}})),
                     insert(route(1, "action_profile_group_id: 1")),
                     insert(acl(1, does(4, {"\\007"}) + "metadata: 'm'")), insert(acl(2, drop()))}),
              ElementsAre("OK"));
  const Words before = everything();
  EXPECT_THAT(write({modify(acl(1, does(4, {"\\010"}))), remove(acl(2)), remove(route(1, "")),
                     remove(group(1, {})), remove(member(1)),
                     insert(route(2, oneShot({{nexthop(), 2}}))), insert(acl(3, drop())),
                     insert(acl(4, forward(0))), insert(acl(5, drop())), remove(acl(3))},
                    rollback),
              ElementsAre("ABORTED", "ABORTED", "ABORTED", "ABORTED", "ABORTED", "ABORTED",
                          "ABORTED", "INVALID_ARGUMENT/15", "ABORTED", "ABORTED"));
  EXPECT_EQ(everything(), before);
  engine->verify();
  EXPECT_THAT(write({remove(route(1, "")), remove(group(1, {})), remove(member(1)),
                     insert(route(2, oneShot({{nexthop(), 2}}))),
                     modify(route(2, oneShot({{nexthop(9, 2), 1}}))), remove(route(2, "")),
                     insert(acl(1, drop()))},
                    rollback),
              ElementsAre("ABORTED", "ABORTED", "ABORTED", "ABORTED", "ABORTED", "ABORTED",
                          "ALREADY_EXISTS"));
  EXPECT_EQ(everything(), before);
  engine->verify();
  EXPECT_THAT(write({remove(acl(1)), insert(acl(1, drop()))}, rollback), ElementsAre("OK"));
  EXPECT_THAT(write({remove(acl(1))}, p4::v1::WriteRequest::DATAPLANE_ATOMIC),
              ElementsAre("UNIMPLEMENTED"));
}

}  // namespace
}  // namespace P4rtTest
