// Shared memory that somebody has damaged, as ostra-show and the next ostra-sim meet it.

#include "CliProgram.h"
#include "tests/Tampering.h"

namespace {

using namespace CliTest;

TEST(CliDamage, IsSaidByShowAndCheckAndGoesWithRemove) {
  const std::string name = uniqueName("ostra-damage-test");
  {
    Process process{OSTRA_SIM_PROGRAM, {"--shm", name}};
    process.write("insert flow priority=1 -> drop\ninsert flow priority=2 -> drop\necho ready\n");
    process.readUntil("ready");
    EXPECT_EQ(show({name, "--check"}).status, 0);
    EXPECT_EQ(show({name, "--remove"}).status, 1) << "it is in use";
    process.kill(SIGKILL);
    process.finish();
  }
  // Rows that were never there do not match either.
  TestSupport::Tampering rows{
      Korm::SegmentName{"/vasta." + name + ".p4runtime.flowTable.0.entry#rows"}};
  for (std::size_t word = 0; word < 512; ++word) {
    rows.wordIs(word, 0);
  }

  const Finished shown = show({name, "flows"});
  EXPECT_EQ(shown.status, 1);
  EXPECT_THAT(shown.out, HasSubstr("the header of the table says 2"));
  EXPECT_EQ(show({name, "members"}).status, 0);
  const Finished checked = show({name, "--check"});
  EXPECT_EQ(checked.status, 1);
  EXPECT_THAT(checked.out, HasSubstr("p4runtime/flowTable/0/entry: it has 0 intact rows"));

  EXPECT_EQ(show({name, "--remove"}).status, 0);
  EXPECT_THAT(show({name}).errors, HasSubstr("is running"));
  EXPECT_EQ(sim("", {"--shm", name}).status, 0);
}

}  // namespace
