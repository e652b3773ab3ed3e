// What stands in the way is named, and nothing that does is acquitted.
#include <map>

#include "PacketFilter.h"
#include "ctl/CtlFixture.h"

namespace wire {
namespace {

TEST(CtlDoctor, FindsWhatStandsInTheWay) {
  const std::string own = OwnAddress();
  const UdpPort taken(TestLoop(), {own, 0}, nullptr);
  const std::string port = std::to_string(taken.Local().port);
  const TestFile file(".json");
  const auto hasAll = [](const std::string& out, const std::vector<std::string>& findings) {
    for (const std::string& finding : findings)
      EXPECT_NE(out.find(finding), std::string::npos) << finding << '\n' << out;
  };
  file.Write(R"({"AddrStr":"","BasePort":15001,"Base":1,"units":[)"
             R"({"UnitTyp":"QZ820","Mode":9,"Speed":0},{"UnitType":"QZ82","SampleFreq":1}]})");
  const Result plain = Ctl({"doctor", file.Text()});
  EXPECT_EQ(plain.status, 1);
  hasAll(plain.out, {"\"AddrStr\" is empty: this unit can't be found", "share port 15001",
                     "\"Base\" means nothing", "\"units[0].UnitTyp\" means nothing",
                     "\"Mode\" 9 is none", "the unit's clock stands still",
                     "two units are called \"emulator1\"", "\"QZ82\" is no model",
                     "\"SampleFreq\" 1 makes the start fail", "ticks late: p50 ", "cure: "});

  file.Write(R"({"AddrStr":")" + own + R"(","units":[{"UnitType":"QZ610"}],"BasePort":)" + port +
             "}");
  EXPECT_EQ(Ctl({"doctor", "no-such-file"}).status, 1);
  const Result json = Ctl({"doctor", file.Text(), "--json"});
  EXPECT_EQ(json.status, 1);
  hasAll(json.out, {"UDP " + port + " (emulator1 control) is taken by ctl_tests"});
  std::map<std::string, int> topics;
  for (const Json& line : json.Objects()) {
    ++topics[TextAt(line, "topic")];
    if (line.value("weight", "fine") == "fine") continue;
    for (const char* key : {"finding", "evidence", "command", "cure"})
      EXPECT_NE(line.value(key, ""), "") << line;
  }
  for (const char* topic :
       {"interfaces", "settings", "ports", "filter", "scheduling", "histogram", "summary"})
    EXPECT_GE(topics[topic], 1) << topic;
}

// The emulator of the file is looked for where the file says, and no other one is taken for it.
TEST(CtlDoctor, KnowsTheEmulatorOfTheFileFromAnother) {
  EmulatorProcess emulator({{.id = "studio-a"}}, 8100, 15101);
  emulator.StartAndWait();
  // Wine knows who has a socket once something has come through it.
  Ctl({"play", "studio-a", "--pattern", "--seconds", "0.1", "--to", emulator.Discovery().ToText()});
  const Result its = Ctl({"doctor", emulator.SettingsPath().string()});
  EXPECT_NE(its.out.find("UDP 15101 (discovery) is in use by the emulator of this file"),
            std::string::npos)
      << its.out;
  EXPECT_EQ(its.out.find("doesn't answer"), std::string::npos) << its.out;

  const TestFile other(".json");
  other.Write(emulator.ReadSettings());
  const Result others = Ctl({"doctor", other.Text()});
  EXPECT_EQ(others.status, 1);
  EXPECT_NE(others.out.find("an emulator with other settings"), std::string::npos) << others.out;

  // At other ports than the file has: all that it names are free then, and nobody answers there.
  const std::string moved = SettingsText(OwnAddress(), 8300, 15301, {{.id = "studio-a"}});
  other.Write(moved);
  const std::string elsewhere = Ctl({"doctor", other.Text()}).out;
  EXPECT_NE(elsewhere.find("another emulator runs"), std::string::npos) << elsewhere;
  emulator.WriteSettings(moved);
  const Result changed = Ctl({"doctor", emulator.SettingsPath().string()});
  EXPECT_EQ(changed.status, 1);
  EXPECT_NE(changed.out.find("runs with other ports than it names"), std::string::npos)
      << changed.out;
  emulator.Stop();
}

TEST(CtlDoctor, ReadsPacketFiltersAsTheyWork) {
  using Kind = ctl::FilterVerdict::Kind;
  const std::string head = "table inet filter {\n\tchain input {\n";
  const std::string drops = "\t\ttype filter hook input priority filter; policy drop;\n";
  const std::string accepts = "\t\ttype filter hook input priority filter; policy accept;\n";
  const std::string tail = "\n\t}\n\tchain mine {\n\t\tudp dport 15001 accept\n\t}\n}\n";
  const std::string save = "*nat\n:INPUT DROP [0:0]\nCOMMIT\n*filter\n:INPUT ";
  const struct {
    std::string rules;
    Kind kind;
    std::string rule = {};
  } rows[] = {
      {"", Kind::Passes},
      {head + accepts + tail, Kind::Passes},
      {head + drops + "\t\tiif \"lo\" accept\n\t\tct state established,related accept\n" +
           "\t\ttcp dport 22 accept" + tail,
       Kind::Drops, "type filter hook input priority filter; policy drop;"},
      {head + drops + "\t\tudp dport { 15001, 8000-8010 } counter packets 0 bytes 0 accept" + tail,
       Kind::Passes},
      {head + drops + "\t\tudp dport 8000-15000 accept" + tail, Kind::Drops,
       "type filter hook input priority filter; policy drop;"},
      {head + drops + "\t\tip saddr 10.0.0.0/8 accept" + tail, Kind::Unclear,
       "type filter hook input priority filter; policy drop;"},
      {head + drops + "\t\tmeta l4proto { tcp, udp } jump mine" + tail, Kind::Passes},
      {head + accepts + "\t\tip saddr 10.0.0.0/8 drop" + tail, Kind::Unclear},
      {head + accepts + "\t\tudp dport != 53 log prefix \"a b\" reject with icmp type x" + tail,
       Kind::Drops, "udp dport != 53 log prefix \"a b\" reject with icmp type x"},
      {"table ip6 filter {\n\tchain input {\n" + drops + "\t}\n}\n", Kind::Passes},
      {save + "ACCEPT [0:0]\n-A INPUT -p udp -m udp --dport 15001 -j DROP\nCOMMIT\n", Kind::Drops,
       "-A INPUT -p udp -m udp --dport 15001 -j DROP"},
      {save + "DROP [0:0]\n-A INPUT -i lo -j ACCEPT\n-A INPUT -p tcp -j ACCEPT\nCOMMIT\n",
       Kind::Drops, ":INPUT DROP [0:0]"},
      {save + "DROP [0:0]\n:OURS - [0:0]\n-A INPUT -j OURS\n" +
           "-A OURS -p udp -m multiport --dports 53,15000:15010 -j ACCEPT\nCOMMIT\n",
       Kind::Passes},
      {save + "DROP [0:0]\n-A INPUT -m conntrack --ctstate RELATED -j ACCEPT\n" +
           "-A INPUT -s 10.0.0.0/8 ! -p tcp -j ACCEPT\nCOMMIT\n",
       Kind::Unclear, ":INPUT DROP [0:0]"},
  };
  for (const auto& row : rows) {
    const ctl::FilterVerdict verdict = ctl::JudgeUdp(row.rules, 15001);
    EXPECT_EQ(verdict.kind, row.kind) << row.rules;
    EXPECT_EQ(verdict.rule, row.rule) << row.rules;
  }
}

}  // namespace
}  // namespace wire
