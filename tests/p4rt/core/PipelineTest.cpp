// Pipelines: which P4Infos the switch accepts, and what the actions on them do. Filters of reads.
#include "EngineFixture.h"

namespace P4rtTest {
namespace {

using p4::config::v1::MatchField;

class PipelineTest : public EngineTest {};

struct BadInfo {
  std::string reason;
  std::string from;
  std::string to;
};

const std::string table1 = "key: 'table' value { int64_value: 1 }";
const std::string size = "  size: 65536";
const std::string end = "type_info {";

const std::vector<BadInfo> badInfos{
    {"upper byte is not 2", "0x02000001 name", "1 name"},
    {"no annotation @ostra", "{ name: 'ostra' kv_pair_list", "{ name: 'other' kv_pair_list"},
    {"'table' from 0 to 14", table1, "key: 'table' value { int64_value: 15 }"},
    {"'table' from 0 to 14", table1, "key: 'table' value {}"},
    {"'type' from 0 to 1", "'type' value { int64_value: 1 }", "'type' value { int64_value: 2 }"},
    {"'priority_group' from 0", "'priority_group' value { int64_value: 0 }",
     "'priority_group' value { int64_value: -1 }"},
    {"unknown key 'tabel'", "key: 'table'", "key: 'tabel'"},
    {"does not say which flow table", "key: 'table'", "key: 'type'"},
    {"are both flow table 0", table1, "key: 'table' value { int64_value: 0 }"},
    {"none that the switch knows", "'ingress_port'", "'hdr.foo'"},
    {"has 32 bits", "'ingress_port' bitwidth: 32", "'ingress_port' bitwidth: 9"},
    {"has 32 bits", "'ingress_port' bitwidth: 32", "'ingress_port' bitwidth: 33"},
    {"takes no mask", "match_type: OPTIONAL", "match_type: TERNARY"},
    {"neither TERNARY", "match_type: TERNARY", "match_type: LPM"},
    {"has no id", "match_fields { id: 1 ", "match_fields { "},
    {"comes twice", "{ id: 1 name: 'ingress_port'", "{ id: 2 name: 'ingress_port'"},
    {"comes twice", "'ingress_port'", "'egress_port'"},
    {"entries of its own", size, "is_const_table: true"},
    {"idle timeouts", size, "idle_timeout_behavior: NOTIFY_CONTROL"},
    {"negative size", size, "size: -1"},
    {"no counter of it", "direct_resource_ids: 0x13000001", "direct_resource_ids: 0x13000002"},
    {"names action", "action_refs { id: 0x01000002", "action_refs { id: 0x01000099"},
    {"names action", "action_refs { id: 0x01000002", "action_refs { id: 0x01000003"},
    {"it has no action profile", "action_refs { id: 0x01000002", "action_refs { id: 0x0100000e"},
    {"its actions are next hops", "action_refs { id: 0x0100000e", "action_refs { id: 0x01000003"},
    {"its actions are next hops", "action_refs { id: 0x0100000e", "action_refs { id: 0x01000002"},
    {"default action that is not a no-op", "default_action_id: 0x01000001",
     "default_action_id: 0x01000002"},
    {"default action that is not a no-op", "id: 0x01000001 name: 'NoAction'",
     "id: 0x01000001 name: 'NoAction' structured_annotations { name: 'ostra' expression_list "
     "{ expressions { string_value: 'drop' } } }"},
    {"names an action profile that does not list it", size, "implementation_id: 0x11000001"},
    {"upper byte is not 1", "0x01000001 name", "1 name"},
    {"upper byte is not 17", "0x11000001 name", "1 name"},
    {"upper byte is not 19", "0x13000001 name", "1 name"},
    {"shares its id", "0x01000001 name", "0x01000002 name"},
    {"none that the switch knows", "'output_port'", "'port_out'"},
    {"has 24 bits", "'vrf_id' bitwidth: 24", "'vrf_id' bitwidth: 25"},
    {"has no id", "params { id: 1 name: 'vrf_id'", "params { name: 'vrf_id'"},
    {"'ingress.police' comes twice", "'policer_rate'", "'policer_burst'"},
    {"is a string", "new_types { key: 'interface_t'", "new_types { key: 'other_t'"},
    {"is a number", "'output_port'", "'output_port' type_name { name: 'interface_t' }"},
    {"unknown flag 'drip'", "string_value: 'drop'", "string_value: 'drip'"},
    {"and no policer", "string_value: 'drop'", "string_value: 'drop_green'"},
    {"both 'policer_rate'", "params { id: 2 name: 'policer_burst' bitwidth: 64 }", ""},
    {"both 'policer_rate'", "params { id: 1 name: 'policer_rate' bitwidth: 64 }", ""},
    {"mixes", "name: 'src_mac' bitwidth: 48", "name: 'vrf_id' bitwidth: 24"},
    {"nothing else", "params { id: 1 name: 'group_id'",
     "params { id: 5 name: 'output_port' bitwidth: 32 } params { id: 1 name: 'group_id'"},
    {"indirect counters are not offered", end, "counters {} type_info {"},
    {"meters are not offered", end, "meters {} type_info {"},
    {"direct meters are not offered", end, "direct_meters {} type_info {"},
    {"packets", end, "controller_packet_metadata {} type_info {"},
    {"value sets", end, "value_sets {} type_info {"},
    {"registers", end, "registers {} type_info {"},
    {"digests", end, "digests {} type_info {"},
    {"externs", end, "externs {} type_info {"},
    {"does not name it", "table_ids: 0x02000003", "table_ids: [0x02000003, 0x02000001]"},
    {"one action profile", end, "action_profiles {} type_info {"},
    {"at most 1024", "max_group_size: 1024", "max_group_size: 1025"},
};

TEST_F(PipelineTest, IsRefusedWithAReasonWhenTheSwitchCannotRealizeIt) {
  const auto expectRefused = [this](const P4Info& info, const std::string& reason) {
    for (const auto action : {SetPipeline::VERIFY, SetPipeline::VERIFY_AND_SAVE,
                              SetPipeline::VERIFY_AND_COMMIT, SetPipeline::RECONCILE_AND_COMMIT}) {
      const P4rt::RpcStatus status = setPipeline(action, info);
      EXPECT_EQ(status.code, P4rt::Code::invalidArgument_) << reason;
      EXPECT_THAT(status.message, HasSubstr(reason));
    }
    EXPECT_FALSE(engine->hasPipeline());
  };
  for (const BadInfo& bad : badInfos) {
    expectRefused(shippedP4Info({{bad.from, bad.to}}), bad.reason);
  }
  P4Info withoutProfile = shippedP4Info();
  withoutProfile.clear_action_profiles();
  withoutProfile.mutable_tables()->DeleteSubrange(2, 1);
  expectRefused(withoutProfile, "there is no action profile");
  // None of them was saved.
  EXPECT_EQ(setPipeline(SetPipeline::COMMIT).code, P4rt::Code::notFound_);
}

TEST_F(PipelineTest, IsCommittedOnlyByARequestThatMakesSense) {
  const P4Info& info = shippedP4Info();
  EXPECT_TRUE(setPipeline(SetPipeline::VERIFY, info).ok());
  EXPECT_EQ(setPipeline(SetPipeline::COMMIT).code, P4rt::Code::notFound_);
  EXPECT_TRUE(setPipeline(SetPipeline::VERIFY_AND_SAVE, info).ok());
  EXPECT_EQ(setPipeline(SetPipeline::UNSPECIFIED, info).code, P4rt::Code::invalidArgument_);
  EXPECT_EQ(setPipeline(SetPipeline::VERIFY_AND_COMMIT).code, P4rt::Code::invalidArgument_);
  EXPECT_EQ(setPipeline(SetPipeline::COMMIT, info).code, P4rt::Code::invalidArgument_);
  EXPECT_FALSE(engine->hasPipeline());
}

class Replacing : public PipelineTest {
 protected:
  Replacing() {
    commitShipped();
    expectTaken({insert(acl(1, does(4, {"\\007"}) + "metadata: 'm'")), insert(acl(2, drop())),
                 insert(acl(3, forward(1))), insert(member(1)), insert(member(2)),
                 insert(group(1, {{1, 2}})), insert(group(2, {{2, 2}})),
                 insert(route(1, "action_profile_group_id: 1")),
                 insert(route(2, "action_profile_group_id: 2"))});
    agent->countersAdd(Korm::Name{"flow-1"}, 5, 50);
  }
};

TEST_F(Replacing, NothingIsReplacedWhileTheHardwareKeepsWhatIsThere) {
  const Texts before = everything();
  agent->automaticIs(false);
  SetPipeline request;
  request.set_action(SetPipeline::VERIFY_AND_COMMIT);
  *request.mutable_config()->mutable_p4info() = shippedP4Info({{"name: 'ostra'", "name: 'other'"}});
  const auto call = begin(request);
  runHardware();  // deletes the entries, which are then restored
  timers.pass(5000);
  EXPECT_EQ(call->status.code, P4rt::Code::deadlineExceeded_);
  agent->automaticIs(true);
  agent->run();
  EXPECT_EQ(everything(), before);
  EXPECT_NE(configured().p4info().pkg_info().name(), "other");
}

TEST_F(Replacing, ReconcilingKeepsWhatStillMeansTheSame) {
  const Texts before = everything();
  EXPECT_TRUE(setPipeline(SetPipeline::RECONCILE_AND_COMMIT, shippedP4Info()).ok());
  EXPECT_EQ(everything(), before);
  // The ACL has no action forward any more, drop means something else, and there is room for one
  // group.
  const std::vector<std::pair<std::string, std::string>> edits{
      {"action_refs { id: 0x01000003 scope: TABLE_ONLY }", ""},
      {"string_value: 'drop'", "string_value: 'dec_ttl'"},
      {"true size: 65536", "true size: 3"}};
  const P4Info info = shippedP4Info(edits);
  EXPECT_TRUE(setPipeline(SetPipeline::RECONCILE_AND_COMMIT, info).ok());
  const Texts after = everything();
  ASSERT_EQ(after.size(), 5U);  // one ACL entry, both members, one group and its route
  for (const std::string& kept : after) {
    EXPECT_THAT(before, testing::Contains(kept));
  }
  engine->verify();
  // Entries that are kept keep their rows and counters.
  EXPECT_EQ(service->flows().size(), 2U);
  EXPECT_THAT(read({"direct_counter_entry { " + acl(1) + " }"}).entities,
              ElementsAre(HasSubstr("packet_count: 5")));
  EXPECT_THAT(write({modify(acl(1, drop())), insert(acl(3, forward(1)))}),
              ElementsAre("OK", "INVALID_ARGUMENT"));
  // An entry is not kept when its table is another one in the switch.
  auto moved = edits;
  moved.push_back({table1, "key: 'table' value { int64_value: 9 }"});
  moved.push_back({"key: 'table' value { int64_value: 0 }", table1});
  const P4Info other = shippedP4Info(moved);
  EXPECT_TRUE(setPipeline(SetPipeline::RECONCILE_AND_COMMIT, other).ok());
  EXPECT_EQ(everything().size(), 4U);
  commitShipped();
  EXPECT_THAT(everything(), IsEmpty());
  EXPECT_EQ(agent->flowsProgrammed() + agent->groupsProgrammed(), 0U);
}

TEST_F(Replacing, FiltersSelectWhatIsRead) {
  struct Case {
    std::string filter;
    std::size_t entities;
    std::string outcome = "OK";
  };
  const std::string inAcl = "table_entry { table_id: 0x02000001 ";
  const std::vector<Case> cases{
      {"table_entry {}", 5},
      {inAcl + "}", 3},
      {"table_entry { table_id: 0x02000002 }", 0},
      {"table_entry { table_id: 0x02000077 }", 0, "NOT_FOUND"},
      {acl(1), 1},
      {acl(1, "", 0), 1},
      {acl(1, "", 11), 0},
      {acl(4), 0},
      {inAcl + "match { field_id: 99 } }", 0, "INVALID_ARGUMENT"},
      {inAcl + "priority: 10 }", 3},
      {inAcl + "priority: 9 }", 0},
      {inAcl + "metadata: 'm' }", 1},
      {inAcl + "controller_metadata: 1 }", 0},
      {inAcl + drop() + "}", 1},
      {inAcl + does(5, {}) + "}", 0},
      {inAcl + does(0x0e, {}) + "}", 0, "INVALID_ARGUMENT"},
      {inAcl + "action { action_profile_group_id: 1 } }", 0, "INVALID_ARGUMENT"},
      {inAcl + "is_default_action: true }", 1},
      {"table_entry { is_default_action: true }", 0, "INVALID_ARGUMENT"},
      {"table_entry { priority: 10 }", 0, "INVALID_ARGUMENT"},
      {"table_entry { metadata: 'm' }", 0, "INVALID_ARGUMENT"},
      {"table_entry { controller_metadata: 1 }", 0, "INVALID_ARGUMENT"},
      {"action_profile_member {}", 2},
      {"action_profile_member { action_profile_id: 0x11000001 member_id: 2 }", 1},
      {"action_profile_member { member_id: 3 }", 0},
      {"action_profile_member { action_profile_id: 0x11000002 }", 0, "NOT_FOUND"},
      {"action_profile_group {}", 2},
      {"action_profile_group { group_id: 1 }", 1},
      {"direct_counter_entry {}", 5},
      {"direct_counter_entry { table_entry { table_id: 0x02000003 } }", 2},
      {"direct_counter_entry { table_entry { table_id: 0x02000003 priority: 7 } }", 0, "NOT_FOUND"},
      {"", 0, "INVALID_ARGUMENT"},
      {"meter_entry {}", 0, "UNIMPLEMENTED"},
  };
  std::vector<std::string> filters;
  Texts outcomes;
  std::size_t all = 0;
  for (const Case& one : cases) {
    const Answer answer = read({one.filter});
    EXPECT_EQ(answer.entities.size(), one.entities) << one.filter;
    EXPECT_THAT(answer.outcome, ElementsAre(one.outcome)) << one.filter;
    filters.push_back(one.filter);
    outcomes.push_back(one.outcome);
    all += one.entities;
  }
  // All filters in one request: the valid ones are answered.
  const Answer answer = read(filters);
  EXPECT_EQ(answer.entities.size(), all);
  EXPECT_EQ(answer.outcome, outcomes);
}

TEST_F(PipelineTest, TablesOfOtherShapes) {
  P4Info info = shippedP4Info();
  // The ACL is exact and not counted, the layer-3 one has no key, and the profile has no groups.
  auto& exact = *info.mutable_tables(0);
  exact.mutable_match_fields()->DeleteSubrange(2, exact.match_fields_size() - 2);
  exact.mutable_match_fields(0)->set_match_type(MatchField::EXACT);
  exact.mutable_match_fields(1)->set_match_type(MatchField::EXACT);
  exact.clear_direct_resource_ids();
  info.mutable_tables(1)->clear_match_fields();
  info.mutable_tables(1)->clear_const_default_action_id();
  info.mutable_action_profiles(0)->set_with_selector(false);
  info.mutable_action_profiles(0)->set_size(2);
  ASSERT_TRUE(setPipeline(SetPipeline::VERIFY_AND_COMMIT, info).ok());
  const auto byPort = [](int port, const std::string& rest) {
    return "table_entry { table_id: 0x02000001 match { field_id: 1 exact { value: '" + octal(port) +
           "' } } match { field_id: 2 exact { value: '\\002' } } " + rest + " }";
  };
  const std::string keyless = "table_entry { table_id: 0x02000002 " + drop();
  const std::string half =
      "table_entry { table_id: 0x02000001 match { field_id: 1 exact { value: "
      "'1' } } " +
      drop() + "}";
  EXPECT_THAT(write({insert(byPort(1, drop())), insert(byPort(2, drop() + "priority: 1")),
                     insert(half), insert(byPort(2, drop() + "counter_data {}")),
                     insert(keyless + "}"), modify(keyless + " is_default_action: true }"),
                     insert(member(1)), insert(member(2)), insert(member(3)), insert(group(1, {})),
                     insert(route(1, "action_profile_group_id: 1")),
                     insert(route(1, oneShot({{nexthop(), 1}}))),
                     insert(route(1, "action_profile_member_id: 2"))}),
              ElementsAre("OK", "INVALID_ARGUMENT", "INVALID_ARGUMENT", "INVALID_ARGUMENT",
                          "INVALID_ARGUMENT", "UNIMPLEMENTED", "OK", "OK", "RESOURCE_EXHAUSTED",
                          "INVALID_ARGUMENT", "INVALID_ARGUMENT", "INVALID_ARGUMENT", "OK"));
  EXPECT_THAT(read({byPort(1, ""), byPort(1, "counter_data {}")}).outcome,
              ElementsAre("OK", "INVALID_ARGUMENT"));
  EXPECT_EQ(read({byPort(1, "")}).entities.size(), 1U);
  engine->verify();
}

TEST_F(PipelineTest, AProfileMayCountMembersAndATableMixExactFieldsWithOthers) {
  P4Info info = shippedP4Info();
  auto& profile = *info.mutable_action_profiles(0);
  profile.set_size(3);
  profile.set_max_group_size(0);
  profile.mutable_sum_of_members()->set_max_member_weight(700);
  info.mutable_tables(1)->mutable_match_fields()->rbegin()->set_match_type(MatchField::EXACT);
  ASSERT_TRUE(setPipeline(SetPipeline::VERIFY_AND_COMMIT, info).ok());
  EXPECT_THAT(write({insert(member(1)), insert(member(2)), insert(group(1, {{1, 701}}, 0)),
                     insert(group(1, {{1, 700}, {2, 400}}, 0)),
                     insert(group(1, {{1, 700}, {2, 300}}, 0)), insert(group(2, {{1, 1}}, 1)),
                     insert(group(3, {{1, 1}}, 1)), insert(group(4, {{1, 1}}, -1)),
                     insert("table_entry { table_id: 0x02000002 priority: 1 match { field_id: 25 "
                            "exact { value: '\\001' } } " +
                            drop() + "}")}),
              ElementsAre("OK", "OK", "INVALID_ARGUMENT", "RESOURCE_EXHAUSTED", "OK", "OK",
                          "RESOURCE_EXHAUSTED", "INVALID_ARGUMENT", "OK"));
  engine->verify();
}

}  // namespace
}  // namespace P4rtTest
