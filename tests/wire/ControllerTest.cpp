#include "support/WireController.h"

#include <gtest/gtest.h>

namespace wire {
namespace {

using std::chrono::milliseconds;

TEST(WireJson, ReadsEveryKindOfValue) {
  const Json json = Json::Parse(
      R"( {"b":[1,-2],"a":{"x":1.5e1},"s":"q\"\/\u00e4\ud834\udd1e","t":true,"n":null,"e":[]} )");
  EXPECT_EQ(json.keys, (std::vector<std::string>{"b", "a", "s", "t", "n", "e"}));
  EXPECT_EQ(json["b"].Integers(), (std::vector<int64_t>{1, -2}));
  EXPECT_EQ(json["a"]["x"].number, 15.0);
  EXPECT_EQ(json["s"].string, "q\"/\xC3\xA4\xF0\x9D\x84\x9E");
  EXPECT_TRUE(json["t"].boolean);
  EXPECT_EQ(json["n"].kind, Json::Kind::Null);
  EXPECT_TRUE(json["e"].array.empty());
  EXPECT_THROW(json["z"], std::runtime_error);
}

TEST(WireJson, RefusesWhatIsNoPlainJson) {
  for (const char* text : {"", "{", "{\"a\":1,}", "[1,]", "01", "1.", ".5", "+1", "\"\n\"", "{} x",
                           "{\"a\":1,\"a\":2}", "tru", "\"\\x\"", "\"\\u12\"", "1e", "{a:1}"}) {
    EXPECT_THROW(Json::Parse(text), std::runtime_error) << text;
  }
}

// Two controllers play unit and controller to each other.
TEST(Controller, AcknowledgesWhatComesAndTakesItOnce) {
  Controller one(OwnAddress());
  Controller two(OwnAddress());
  const uint32_t id = one.Tell(two.Local(), "get_inputs", R"("extra":[1])", {7, 8});
  const auto message = two.Take("get_inputs", one.Local());
  ASSERT_TRUE(message);
  EXPECT_EQ(message->id, id);
  EXPECT_EQ(message->body["extra"].Integers(), std::vector<int64_t>{1});
  EXPECT_EQ(message->attachment, (Bytes{7, 8}));
  ASSERT_EQ(one.AcksOf(id).size(), 1u);
  EXPECT_TRUE(one.AcksOf(id)[0].from == two.Local());

  one.SendWithId(id, two.Local(), "get_inputs");  // a repeat: acknowledged, not taken again
  EXPECT_TRUE(one.WaitAcks(id, 2));
  EXPECT_FALSE(two.Take("get_inputs", {}, milliseconds(1)));
  EXPECT_EQ(two.Received().size(), 2u);
}

TEST(Controller, LeavesUnacknowledgedWhatItIsToldTo) {
  Controller one(OwnAddress());
  Controller two(OwnAddress());
  two.Acknowledge(false);
  const uint32_t id = one.Send(two.Local(), "get_state");
  ASSERT_TRUE(two.WaitCount("get_state", 1));
  EXPECT_FALSE(one.WaitAcks(id, 1, milliseconds(20)));
}

TEST(Controller, ComplainsOfWhatIsNoMessage) {
  Controller one(OwnAddress());
  Controller two(OwnAddress());
  one.SendRaw(two.Local(), {'{', '}'});
  one.SendRaw(two.Local(), MakeDatagram("{}"));
  one.SendRaw(two.Local(), MakeDatagram("junk"));
  one.Tell(two.Local(), "get_state");
  EXPECT_EQ(two.Complaints().size(), 3u);
  EXPECT_TRUE(one.Complaints().empty());
}

}  // namespace
}  // namespace wire
