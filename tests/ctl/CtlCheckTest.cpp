// The conformance tour: right units pass, and each wrong one fails at the check that is meant for
// it.
#include <memory>

#include "ctl/CtlFixture.h"
#include "support/WrongUnit.h"

namespace wire {
namespace {

TEST_F(CtlTest, CheckPassesOnEveryModelAndLeavesItAsItWas) {
  // Two checks provoke these on purpose.
  emulator_.Allow("Protocol error. No ack received");
  emulator_.Allow("Sample freq 1 is not supported");
  ASSERT_EQ(Run({"set-inputs", "tuner-b", "1=127.0.0.1:9001"}).status, 0);
  const std::string before = Run({"fm", "tuner-b"}).out;
  const std::pair<const char*, size_t> units[] = {{"studio-a", 18}, {"tuner-b", 28}, {"odd-c", 13}};
  std::vector<std::unique_ptr<Process>> tours;  // all at once, as they mostly listen
  for (const auto& [unit, checks] : units) {
    tours.push_back(std::make_unique<Process>(
        QZ_CTL, Process::Options{.arguments = WithTo({"check", unit, "--json"})}));
  }
  for (size_t i = 0; i < tours.size(); ++i) {
    const auto& [unit, checks] = units[i];
    const Result result = ResultOf(*tours[i]);
    EXPECT_EQ(result.status, 0) << result.out << result.err;
    EXPECT_GE(result.Objects().size(), checks) << result.out;
  }
  EXPECT_EQ(Destination("tuner-b", 1), "127.0.0.1:9001");
  EXPECT_EQ(Run({"fm", "tuner-b"}).out, before);
}

// The tour must find each fault, and name it.
TEST(CtlCheck, NamesWhatIsWrongWithAWrongUnit) {
  const std::pair<Fault, const char*> faults[] = {
      {Fault::NeverAcknowledges, "acknowledgement"},   {Fault::AcknowledgesLate, "acknowledgement"},
      {Fault::AcknowledgesWrongId, "acknowledgement"}, {Fault::RepeatsWithoutEnd, "repeats"},
      {Fault::RefersToWrongId, "get_fm_freq"},         {Fault::WrongPayloadType, "input 0 format"},
      {Fault::DropsEveryTenth, "input 0 sequence"},
  };
  struct Tour {
    explicit Tour(Fault fault) : unit(OwnAddress(), fault) {}
    WrongUnit unit;
    std::string control = unit.Control().ToText();
    Process child{
        QZ_CTL, {.arguments = {"check", control, "--to", control, "--timeout", "1000", "--json"}}};
  };
  Tour right(Fault::None);
  std::vector<std::unique_ptr<Tour>> tours;
  for (const auto& [fault, check] : faults)
    tours.push_back(std::make_unique<Tour>(fault));
  // Without a fault the same double passes.
  EXPECT_EQ(ResultOf(right.child).status, 0) << right.child.Output();
  for (size_t i = 0; i < tours.size(); ++i) {
    const char* check = faults[i].second;
    const Result result = ResultOf(tours[i]->child);
    EXPECT_EQ(result.status, 1) << check << result.err;
    bool named = false;
    for (const Json& line : result.Objects()) {
      if (line.Has("check") && line["check"].string == check) {
        named = line["result"].string == "fail";
      }
    }
    EXPECT_TRUE(named) << check << "\n" << result.out;
  }
}

}  // namespace
}  // namespace wire
