// Pipelines: which P4Infos the switch can realize, and what the actions on them do. Reads by
// filter.

#include "EngineFixture.h"
#include "tests/UniqueName.h"

namespace P4rtTest {
namespace {

using p4::config::v1::MatchField;
using p4::config::v1::P4Info;
using p4::config::v1::Table;
using testing::HasSubstr;

class PipelineTest : public EngineTest {
 protected:
  using EngineTest::EngineTest;
};

using Edit = std::function<void(P4Info&)>;
struct BadInfo {
  std::string reason;
  Edit edit;
};

// Edits of one table, field, parameter or annotation of the shipped P4Info.
Edit inTable(int at, const std::function<void(p4::config::v1::Table&)>& edit) {
  return [=](P4Info& info) { edit(*info.mutable_tables(at)); };
}
Edit inField(int at, const std::function<void(MatchField&)>& edit) {
  return inTable(0, [=](auto& table) { edit(*table.mutable_match_fields(at)); });
}
Edit inParam(int action, const std::function<void(p4::config::v1::Action::Param&)>& edit) {
  return [=](P4Info& info) { edit(*info.mutable_actions(action)->mutable_params(0)); };
}
Edit inFlag(int action, const std::string& word) {
  return [=](P4Info& info) {
    info.mutable_actions(action)
        ->mutable_preamble()
        ->mutable_structured_annotations(0)
        ->mutable_expression_list()
        ->mutable_expressions(0)
        ->set_string_value(word);
  };
}
Edit inPlacement(int at, const std::function<void(p4::config::v1::KeyValuePair&)>& edit,
                 int table = 1) {
  return inTable(table, [=](auto& placed) {
    auto& annotation = *placed.mutable_preamble()->mutable_structured_annotations(0);
    edit(*annotation.mutable_kv_pair_list()->mutable_kv_pairs(at));
  });
}
Edit placed(int at, std::int64_t value, int table = 1) {
  return inPlacement(
      at, [=](auto& p) { p.mutable_value()->set_int64_value(value); }, table);
}
template <class Object>
Edit inPreamble(Object object, std::uint32_t id) {
  return [=](P4Info& info) { object(info)->mutable_preamble()->set_id(id); };
}
Edit withParam(int action, const std::string& name, int width) {
  return [=](P4Info& info) {
    auto& added = *info.mutable_actions(action)->add_params();
    added.set_id(5);
    added.set_name(name);
    added.set_bitwidth(width);
  };
}

Edit refers(int at, std::uint32_t action) {
  return inTable(at, [=](Table& t) { t.mutable_action_refs(0)->set_id(action); });
}

std::vector<BadInfo> badTables() {
  return {
      {"upper byte is not 2", inTable(0, [](Table& t) { t.mutable_preamble()->set_id(1); })},
      {"no annotation @ostra",
       inTable(0, [](Table& t) { t.mutable_preamble()->clear_structured_annotations(); })},
      {"'table' from 0 to 14", placed(0, 15)},
      {"'table' from 0 to 14", inPlacement(0, [](auto& p) { p.mutable_value()->clear_value(); })},
      {"'type' from 0 to 1", placed(1, 2)},
      {"'priority_group' from 0", placed(2, -1)},
      {"unknown key 'tabel'", inPlacement(0, [](auto& p) { p.set_key("tabel"); })},
      {"does not say which flow table", inPlacement(0, [](auto& p) { p.set_key("type"); })},
      {"are both flow table 0", placed(0, 0)},
      {"none that the switch knows", inField(0, [](auto& f) { f.set_name("hdr.foo"); })},
      {"has 32 bits", inField(0, [](auto& f) { f.set_bitwidth(9); })},
      {"takes no mask", inField(0, [](auto& f) { f.set_match_type(MatchField::TERNARY); })},
      {"neither TERNARY", inField(7, [](auto& f) { f.set_match_type(MatchField::LPM); })},
      {"has no id", inField(0, [](auto& f) { f.set_id(0); })},
      {"comes twice", inField(0, [](auto& f) { f.set_id(2); })},
      {"comes twice", inField(0, [](auto& f) { f.set_name("egress_port"); })},
      {"entries of its own", inTable(0, [](Table& t) { t.set_is_const_table(true); })},
      {"idle timeouts",
       inTable(0, [](Table& t) { t.set_idle_timeout_behavior(Table::NOTIFY_CONTROL); })},
      {"negative size", inTable(0, [](Table& t) { t.set_size(-1); })},
      {"no counter of it", inTable(0, [](Table& t) { t.set_direct_resource_ids(0, 0x13000002); })},
      {"names action", refers(0, 0x01000099)},
      {"names action", refers(0, 0x01000003)},
      {"it has no action profile", refers(0, 0x0100000e)},
      {"its actions are next hops", refers(2, 0x01000003)},
      {"its actions are next hops", refers(2, 0x01000002)},
      {"default action that does something",
       inTable(0, [](Table& t) { t.set_const_default_action_id(0x01000002); })},
      {"names an action profile that does not name it",
       inTable(0, [](Table& t) { t.set_implementation_id(profileId); })},
  };
}

std::vector<BadInfo> badRest() {
  return {
      {"upper byte is not 1", inPreamble([](P4Info& i) { return i.mutable_actions(0); }, 1)},
      {"upper byte is not 17",
       inPreamble([](P4Info& i) { return i.mutable_action_profiles(0); }, 1)},
      {"upper byte is not 19",
       inPreamble([](P4Info& i) { return i.mutable_direct_counters(0); }, 1)},
      {"shares its id", inPreamble([](P4Info& i) { return i.mutable_actions(0); }, 0x01000002)},
      {"none that the switch knows", inParam(2, [](auto& p) { p.set_name("port_out"); })},
      {"has 24 bits", inParam(3, [](auto& p) { p.set_bitwidth(25); })},
      {"has no id", inParam(3, [](auto& p) { p.set_id(0); })},
      {"'ingress.police' comes twice", inParam(11, [](auto& p) { p.set_name("policer_burst"); })},
      {"is a string", [](P4Info& i) { i.clear_type_info(); }},
      {"is a number", inParam(2, [](auto& p) { p.mutable_type_name()->set_name("interface_t"); })},
      {"unknown flag 'drip'", inFlag(1, "drip")},
      {"and no policer", inFlag(1, "drop_green")},
      {"both 'policer_rate'",
       [](P4Info& i) { i.mutable_actions(11)->mutable_params()->RemoveLast(); }},
      {"mixes", withParam(13, "vrf_id", 24)},
      {"nothing else", withParam(7, "output_port", 32)},
      {"indirect counters are not offered", [](P4Info& i) { i.add_counters(); }},
      {"meters are not offered", [](P4Info& i) { i.add_meters(); }},
      {"direct meters are not offered", [](P4Info& i) { i.add_direct_meters(); }},
      {"packets", [](P4Info& i) { i.add_controller_packet_metadata(); }},
      {"value sets", [](P4Info& i) { i.add_value_sets(); }},
      {"registers", [](P4Info& i) { i.add_registers(); }},
      {"digests", [](P4Info& i) { i.add_digests(); }},
      {"externs", [](P4Info& i) { i.add_externs(); }},
      {"does not name it", [](P4Info& i) { i.mutable_action_profiles(0)->add_table_ids(aclId); }},
      {"one action profile", [](P4Info& i) { i.add_action_profiles(); }},
      {"at most 1024", [](P4Info& i) { i.mutable_action_profiles(0)->set_max_group_size(1025); }},
      {"and there is none",
       [](P4Info& i) {
         i.clear_action_profiles();
         i.mutable_tables()->DeleteSubrange(2, 1);
       }},
  };
}

TEST_F(PipelineTest, IsRefusedWithAReasonWhenTheSwitchCannotRealizeIt) {
  for (const auto& list : {badTables(), badRest()}) {
    for (const BadInfo& bad : list) {
      P4Info info = shippedP4Info();
      bad.edit(info);
      for (const auto action :
           {SetPipeline::VERIFY, SetPipeline::VERIFY_AND_SAVE, SetPipeline::VERIFY_AND_COMMIT,
            SetPipeline::RECONCILE_AND_COMMIT}) {
        const P4rt::RpcStatus status = setPipeline(action, &info);
        EXPECT_EQ(status.code, P4rt::Code::invalidArgument_) << bad.reason;
        EXPECT_THAT(status.message, HasSubstr(bad.reason));
      }
      EXPECT_FALSE(engine->hasPipeline());
    }
  }
  // None of them was saved.
  EXPECT_EQ(setPipeline(SetPipeline::COMMIT).code, P4rt::Code::notFound_);
}

TEST_F(PipelineTest, NothingIsServedWithoutOne) {
  EXPECT_THAT(write({insert(acl(1, drop()))}), ElementsAre("FAILED_PRECONDITION"));
  EXPECT_THAT(read({"table_entry {}"}).outcome, ElementsAre("FAILED_PRECONDITION"));
  EXPECT_FALSE(configured().has_p4info());
  const P4Info& info = shippedP4Info();
  EXPECT_TRUE(setPipeline(SetPipeline::VERIFY, &info).ok());
  EXPECT_TRUE(setPipeline(SetPipeline::VERIFY_AND_SAVE, &info).ok());
  EXPECT_FALSE(engine->hasPipeline());
  EXPECT_EQ(setPipeline(SetPipeline::UNSPECIFIED, &info).code, P4rt::Code::invalidArgument_);
  EXPECT_EQ(setPipeline(SetPipeline::VERIFY_AND_COMMIT).code, P4rt::Code::invalidArgument_);
  EXPECT_EQ(setPipeline(SetPipeline::COMMIT, &info).code, P4rt::Code::invalidArgument_);
  EXPECT_TRUE(setPipeline(SetPipeline::COMMIT).ok());
  EXPECT_EQ(setPipeline(SetPipeline::COMMIT).code, P4rt::Code::notFound_);
  EXPECT_THAT(write({insert(acl(1, drop()))}), ElementsAre("OK"));
  // Another one that is committed takes the place of the saved one too.
  EXPECT_TRUE(setPipeline(SetPipeline::VERIFY_AND_SAVE, &info).ok());
  EXPECT_TRUE(setPipeline(SetPipeline::VERIFY_AND_COMMIT, &info).ok());
  EXPECT_EQ(setPipeline(SetPipeline::COMMIT).code, P4rt::Code::notFound_);
}

class KeptPipeline : public PipelineTest {
 protected:
  KeptPipeline() : PipelineTest{uniqueName("p4rt-pipeline")} {}
};

TEST_F(KeptPipeline, OutlivesTheProcessCommittedOrSaved) {
  SetPipeline request;
  request.set_action(SetPipeline::VERIFY_AND_SAVE);
  *request.mutable_config()->mutable_p4info() = shippedP4Info();
  request.mutable_config()->set_p4_device_config(std::string("\0opaque", 7));
  request.mutable_config()->mutable_cookie()->set_cookie(5);
  ASSERT_TRUE(setPipeline(request).ok());
  restart();
  EXPECT_FALSE(engine->hasPipeline());
  EXPECT_TRUE(setPipeline(SetPipeline::COMMIT).ok());
  ASSERT_THAT(write({insert(acl(1, drop())), insert(route(1, oneShot({{nexthop(), 2}})))}),
              ElementsAre("OK"));
  const Words written = everything();
  restart();
  EXPECT_EQ(configured().DebugString(), request.config().DebugString());
  EXPECT_EQ(setPipeline(SetPipeline::COMMIT).code, P4rt::Code::notFound_);
  EXPECT_EQ(everything(), written);
  inTable(0, [](Table& t) { t.set_size(1); })(*request.mutable_config()->mutable_p4info());
  request.set_action(SetPipeline::RECONCILE_AND_COMMIT);
  ASSERT_TRUE(setPipeline(request).ok());
  EXPECT_THAT(write({remove(acl(1)), insert(route(2, oneShot({{nexthop(), 1}})))}),
              ElementsAre("OK"));
  restart();
  EXPECT_EQ(configured().DebugString(), request.config().DebugString());
  EXPECT_EQ(everything().size(), 2U);
  engine->verify();
}

class Replacing : public PipelineTest {
 protected:
  Replacing() {
    commitShipped();
    EXPECT_THAT(write({insert(acl(1, does(4, {"\\007"}) + "metadata: 'm'")), insert(acl(2, drop())),
                       insert(acl(3, forward(1))), insert(member(1)), insert(member(2)),
                       insert(group(1, {{1, 2}})), insert(group(2, {{2, 2}})),
                       insert(route(1, "action_profile_group_id: 1")),
                       insert(route(2, "action_profile_group_id: 2"))}),
                ElementsAre("OK"));
    agent->countersAdd(Korm::Name{"flow-1"}, 5, 50);
  }
  ~Replacing() override { engine->verify(); }
};

TEST_F(Replacing, NothingIsReplacedWhileTheHardwareKeepsWhatIsThere) {
  const Words before = everything();
  agent->automaticIs(false);
  SetPipeline request;
  request.set_action(SetPipeline::VERIFY_AND_COMMIT);
  *request.mutable_config()->mutable_p4info() = shippedP4Info();
  request.mutable_config()->mutable_p4info()->mutable_pkg_info()->set_name("other");
  P4rt::RpcStatus result;
  engine->setPipeline(request, [&result](P4rt::RpcStatus status) { result = std::move(status); });
  runHardware();  // the entries go, and come back
  timers.pass(5000);
  EXPECT_EQ(result.code, P4rt::Code::deadlineExceeded_);
  agent->automaticIs(true);
  agent->run();
  EXPECT_EQ(everything(), before);
  EXPECT_NE(configured().p4info().pkg_info().name(), "other");
}

TEST_F(Replacing, ReconcilingKeepsWhatStillMeansTheSame) {
  const Words before = everything();
  P4Info info = shippedP4Info();
  EXPECT_TRUE(setPipeline(SetPipeline::RECONCILE_AND_COMMIT, &info).ok());
  EXPECT_EQ(everything(), before);
  // The ACL has no action forward any more, drop means something else, and there is room for one
  // group.
  inTable(0, [](auto& t) { t.mutable_action_refs()->DeleteSubrange(1, 1); })(info);
  inFlag(1, "dec_ttl")(info);
  info.mutable_action_profiles(0)->set_size(3);
  EXPECT_TRUE(setPipeline(SetPipeline::RECONCILE_AND_COMMIT, &info).ok());
  const Words after = everything();
  ASSERT_EQ(after.size(), 5U);  // one ACL entry, both members, one group and its route
  for (const std::string& kept : after) {
    EXPECT_THAT(before, testing::Contains(kept));
  }
  engine->verify();
  // What stays has its row, and its counter.
  EXPECT_EQ(service->flows().size(), 2U);
  EXPECT_THAT(read({"direct_counter_entry { " + acl(1) + " }"}).entities,
              ElementsAre(HasSubstr("packet_count: 5")));
  EXPECT_THAT(write({modify(acl(1, drop())), insert(acl(3, forward(1)))}),
              ElementsAre("OK", "INVALID_ARGUMENT"));
  // A table that is now another one keeps nothing.
  placed(0, 9)(info);
  placed(0, 1, 0)(info);
  EXPECT_TRUE(setPipeline(SetPipeline::RECONCILE_AND_COMMIT, &info).ok());
  EXPECT_EQ(everything().size(), 4U);
  EXPECT_TRUE(setPipeline(SetPipeline::VERIFY_AND_COMMIT, &info).ok());
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
  Words outcomes;
  std::size_t all = 0;
  for (const Case& one : cases) {
    const Answer answer = read({one.filter});
    EXPECT_EQ(answer.entities.size(), one.entities) << one.filter;
    EXPECT_THAT(answer.outcome, ElementsAre(one.outcome)) << one.filter;
    filters.push_back(one.filter);
    outcomes.push_back(one.outcome);
    all += one.entities;
  }
  // Together: what makes sense is answered.
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
  ASSERT_TRUE(setPipeline(SetPipeline::VERIFY_AND_COMMIT, &info).ok());
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

TEST_F(PipelineTest, AProfileMayCountMembers) {
  P4Info info = shippedP4Info();
  auto& profile = *info.mutable_action_profiles(0);
  profile.set_size(3);
  profile.set_max_group_size(0);
  profile.mutable_sum_of_members()->set_max_member_weight(700);
  ASSERT_TRUE(setPipeline(SetPipeline::VERIFY_AND_COMMIT, &info).ok());
  EXPECT_THAT(write({insert(member(1)), insert(member(2)), insert(group(1, {{1, 701}}, 0)),
                     insert(group(1, {{1, 700}, {2, 400}}, 0)),
                     insert(group(1, {{1, 700}, {2, 300}}, 0)), insert(group(2, {{1, 1}}, 1)),
                     insert(group(3, {{1, 1}}, 1)), insert(group(4, {{1, 1}}, -1))}),
              ElementsAre("OK", "OK", "INVALID_ARGUMENT", "RESOURCE_EXHAUSTED", "OK", "OK",
                          "RESOURCE_EXHAUSTED", "INVALID_ARGUMENT"));
  engine->verify();
}

}  // namespace
}  // namespace P4rtTest
