// The commands that show the protocol: send and listen.
#include "ctl/CtlFixture.h"

namespace wire {
namespace {

TEST_F(CtlTest, SendShowsAcknowledgementAndAnswer) {
  emulator_.Allow("Bad message received");
  const struct {
    const char* request;
    int status;
    std::vector<std::string> says;
  } rows[] = {{R"({"msg":"get_inputs"})", 0, {"acknowledged after", "answered after", "inputs"}},
              {R"({"msg":"get_state","msg_id":77})", 0, {"\"ack_msg_id\":77", "no answer, as"}},
              {R"({"msg":"set_fm_freq","freq":[1]})", 1, {"acknowledged after", "\"code\":2"}},
              {R"({"msg":"no_such"})", 3, {"doesn't acknowledge it: there is no message"}},
              {R"({"msg_id":1})", 2, {"\"msg\" is missing"}}};
  for (const auto& row : rows) {
    const Result result = Run({"send", "tuner-b", row.request});
    EXPECT_EQ(result.status, row.status) << result.err;
    for (const std::string& part : row.says)
      EXPECT_NE((result.out + result.err).find(part), std::string::npos) << result.out << part;
  }
}

TEST_F(CtlTest, ExpectSaysWhetherConditionsHoldAndLeavesInputsAsTheyWere) {
  Run({"set-inputs", "studio-a", "0=127.0.0.1:9"});
  Process play(QZ_CTL, {.arguments = WithTo({"play", "studio-a", "--tone", "1000", "--level", "-6",
                                             "--seconds", "60"})});
  const struct {
    std::vector<std::string> arguments;
    int status;
    const char* says;
  } rows[] = {
      {{"input", "0", "--tone", "1000", "--level", "-6+-0.5", "destination", "0=127.0.0.1:9"},
       0,
       "1000.0 Hz at -6."},  // less by what a machine that stood still has left out
      {{"input", "0", "--tone", "1000", "--level", "-20", "--within", "100ms"}, 1, "peak -6.00 dB"},
      {{"input", "0", "--tone", "1500", "--within", "100ms"}, 1, "0% of the power"},
      {{"input", "0", "silent", "--within", "100ms"}, 1, "peak -6.00 dB still"},
      {{"freq", "44100", "--within", "1s"}, 1, "the sample frequency is 48000"},
      {{"found", "destination", "0=off", "--within", "300ms"}, 1, "goes to 127.0.0.1:9"},
      {{"gone", "--within", "300ms"}, 1, "studio-a is there"},
      {{"input", "0"}, 2, "input N silent"}};
  for (const auto& row : rows) {
    std::vector<std::string> arguments{"expect", "studio-a"};
    arguments.insert(arguments.end(), row.arguments.begin(), row.arguments.end());
    const Result result = Run(arguments);
    EXPECT_EQ(result.status, row.status) << result.out << result.err;
    EXPECT_NE((result.out + result.err).find(row.says), std::string::npos)
        << result.out << result.err;
  }
  EXPECT_EQ(Destination("studio-a", 0), "127.0.0.1:9");
}

TEST(CtlListen, AcknowledgesAndExplains) {
  Process listen(QZ_CTL, {.arguments = {"listen", "--explain", "--at", OwnAddress()}});
  const auto line = listen.WaitLine("listening at ");
  ASSERT_TRUE(line);
  const std::string text = line->text.substr(13);
  const Endpoint peer = *Endpoint::Parse(text.substr(0, text.find(' ')));
  Link link(TestLoop());
  const uint32_t id = link.Tell(peer, "get_inputs");
  link.SendWithId(id, peer, "get_fm_freq");
  EXPECT_TRUE(listen.WaitLine("a unit would drop it"));
  link.SendRaw({'{', '}'}, peer);
  EXPECT_TRUE(listen.WaitLine("refused: no 0 byte after the JSON text (2 bytes)"));
}

}  // namespace
}  // namespace wire
