// The far end against itself and against peers that do wrong: what it sends, what it refuses, when
// it gives up. What it makes of segments and of streams that come as they like is held by the fuzz
// targets FuzzLink and FuzzStreamStats.
#include <gtest/gtest.h>

#include <cmath>

#include "LoopBack.h"
#include "wire/Link.h"
#include "wire/StreamStats.h"
#include "wire/Streams.h"
#include "wire/Units.h"

namespace wire {
namespace {

using std::chrono::milliseconds;

const Endpoint kHere("127.0.0.1", 0);

Bytes ToBytes(const std::string& text) {
  return {text.begin(), text.end()};
}

TEST(Message, IsWrittenAsUnitsReadIt) {
  const Json object{{"msg", "error"}, {"txt", "\x1f\n\\u00ff\xC3\xA4"}, {"msg_id", 7}};
  const Message message = Decode(Encode(object));
  EXPECT_EQ(message.text, R"({"msg":"error","msg_id":7,"txt":"\u001F\n\\u00ff)"
                          "\xC3\xA4\"}");
  EXPECT_EQ(message.body, object);
}

TEST(Message, RefusesWhatNoOtherPeerNeedTake) {
  const std::string tails[] = {std::string(1, '\0'), ""};
  const std::string good = R"({"msg":"ack","msg_id":7})";
  EXPECT_NO_THROW(Decode(ToBytes(good + tails[0])));
  EXPECT_THROW(Decode(ToBytes(good)), BadMessage) << "no byte 0x00";
  EXPECT_THROW(Decode(ToBytes(good + tails[0] + "x")), BadMessage) << "bytes not announced";
  for (const char* text : {"", " ", "{", "[]", "\xEF\xBB\xBF{\"msg\":\"a\",\"msg_id\":7}",
                           R"({"msg":"a","msg_id":7} x)", R"({"msg":"a","msg_id":7,"msg_id":8})",
                           R"({"msg":"a"})", R"({"msg_id":7})", R"({"msg":7,"msg_id":7})",
                           R"({"msg":"a","msg_id":-1})", R"({"msg":"a","msg_id":7.0})",
                           R"({"msg":"a","msg_id":4294967296})", R"({"msg":"a","msg_id":"7"})",
                           R"({"msg":"a","msg_id":7,})", "{\"msg\":\"\xFF\",\"msg_id\":7}"}) {
    EXPECT_THROW(Decode(ToBytes(text + tails[0])), BadMessage) << text;
  }
}

TEST(Endpoint, TakesAddressesInTheirOneForm) {
  EXPECT_EQ(Endpoint::Parse("127.0.0.1:8000"), Endpoint(0x7F000001, 8000));
  EXPECT_EQ(Endpoint("10.0.0.9", 5).ToText(), "10.0.0.9:5");
  EXPECT_LT(Endpoint("10.0.0.9", 5), Endpoint("10.0.0.10", 4));
  for (const char* text : {"", "1.2.3", "1.2.3.4.5", "1.2.3.256", "01.2.3.4",
                           "1.2.3.4:", "1.2.3.4 ", "1.2.3.4:65536", "1.2.3.4:08", "0x1.2.3.4"}) {
    EXPECT_FALSE(Endpoint::Parse(text)) << text;
  }
}

// Two links play unit and controller to each other.
class Links : public testing::Test {
 protected:
  Loop loop;
  Link one{loop, kHere};
  Link two{loop, kHere};
};

TEST_F(Links, CarryMessagesOfEveryLengthOnce) {
  for (const size_t size : {0u, 1u, 1300u, 1301u, 2600u, 4000u}) {
    Bytes attachment(size);
    for (size_t i = 0; i < size; ++i)
      attachment[i] = static_cast<uint8_t>(i * 7);
    const uint32_t id = one.Tell(two.Local(), "set_state", {{"device_freq", size}}, attachment);
    const auto message = two.Take("set_state", one.Local(), {});
    ASSERT_TRUE(message) << size;
    EXPECT_EQ(message->id, id);
    EXPECT_EQ(message->attachment, attachment);
    const size_t segments = size <= 1300 ? 0 : (size + 1299) / 1300;
    EXPECT_EQ(two.Received().size(), 1 + segments);
    two.Clear();
  }
  const uint32_t id = one.Send(two.Local(), "get_state");
  one.SendWithId(id, two.Local(), "get_state");  // a repeat: acknowledged, not taken again
  EXPECT_TRUE(one.WaitAcks(id, 2));
  EXPECT_TRUE(two.Take("get_state"));
  EXPECT_FALSE(two.Take("get_state", {}, {}));
  Link third(loop, kHere);  // another's number is no repeat
  third.SendWithId(id, two.Local(), "get_state");
  EXPECT_TRUE(two.Take("get_state", third.Local()));
  EXPECT_TRUE(one.Complaints().empty() && two.Complaints().empty());
}

TEST_F(Links, GiveUpAfterFiveTransmissions) {
  two.Acknowledge(false);
  const auto start = Clock::now();
  EXPECT_THROW(one.Tell(two.Local(), "get_state"), NoAnswer);
  EXPECT_GE(Clock::now() - start, 5 * kAckTimeout);
  ASSERT_TRUE(two.WaitCount("get_state", 5));
  EXPECT_EQ(two.Received().size(), 5U);
  EXPECT_EQ(two.Received().front().id, two.Received().back().id);
}

// A unit that answers at once, and acknowledges or doesn't.
TEST_F(Links, AskTakesTheAnswerThatIsMeant) {
  struct {
    bool acknowledges;
    const char* type;
    int about;  // beside the request's number
    const char* outcome;
  } const rows[] = {{true, "inputs", 0, "answer"},
                    {false, "inputs", 0, "answer"},
                    {true, "error", 0, "refused"},
                    {true, "error", 1, "nothing"},
                    {true, "fm_freq", 0, "nothing"}};
  for (const auto& row : rows) {
    UdpPort unit(loop, kHere, [&](const Datagram& datagram) {
      const Message request = Decode(datagram.bytes, datagram.from);
      if (request.type == "ack") return;
      const auto send = [&](const Json& object) { unit.Send(Encode(object), datagram.from); };
      if (row.acknowledges) send({{"msg", "ack"}, {"msg_id", 1}, {"ack_msg_id", request.id}});
      send({{"msg", row.type},
            {"msg_id", 2},
            {"code", 1},
            {"txt", "no"},
            {"err_msg_id", request.id + static_cast<uint32_t>(row.about)}});
    });
    std::string outcome = "nothing";
    try {
      const bool comes = row.outcome != std::string("nothing");
      one.Ask(unit.Local(), "get_inputs", "inputs", Json::object(), {},
              milliseconds(comes ? 5000 : 150));
      outcome = "answer";
    } catch (const Refused&) {
      outcome = "refused";
    } catch (const NoAnswer& error) {
      EXPECT_EQ(error.missing, NoAnswer::Missing::Answer);
    }
    EXPECT_EQ(outcome, row.outcome) << row.type;
  }
}

TEST(Units, RefuseADescriptionThatCanNotBe) {
  const auto with = [](const char* key, const Json& value) {
    Message message;
    message.body = {{"unit_id", "a"},        {"unit_type", "QZ820"}, {"hardware", 1},
                    {"firmware", 1},         {"software", 1},        {"audio_protocol", 1},
                    {"control_protocol", 1}, {"rtp_port", 65533},    {"inputs", 4},
                    {"outputs", 2}};
    if (value.is_null()) {
      message.body.erase(key);
    } else {
      message.body[key] = value;
    }
    return message;
  };
  EXPECT_EQ(ToUnit(with("inputs", 4)).Output(1).port, 65535);
  EXPECT_THROW(ToUnit(with("software", nullptr)), BadMessage);
  EXPECT_THROW(ToUnit(with("inputs", 100'000'000)), BadMessage);
  EXPECT_THROW(ToUnit(with("outputs", 3)), BadMessage);
  EXPECT_THROW(ToUnit(with("rtp_port", 65536)), BadMessage);
}

TEST(Loop, IsInterruptedUnlessShielded) {
  Loop loop;
  bool stop = false;
  loop.SetInterrupt([&] { return stop; });
  Timer timer(loop, [&] { stop = true; });
  timer.At(Clock::now() + milliseconds(10));
  EXPECT_THROW(loop.RunFor(std::chrono::hours(1)), Interrupted);
  const Loop::Shield shield(loop);
  EXPECT_NO_THROW(loop.RunFor(milliseconds(1)));
}

TEST(LoopThread, RunsTheLoopWhileItsOwnerWaits) {
  Loop loop;
  std::unique_ptr<Link> unit;
  LoopThread thread(loop);
  thread.Do([&] { unit = std::make_unique<Link>(loop, kHere); });
  Loop other;
  Link controller(other, kHere);
  controller.Tell(thread.Do([&] { return unit->Local(); }), "get_state");
  EXPECT_EQ(thread.Do([&] { return unit->Received().size(); }), 1U);
  EXPECT_THROW(thread.Do([]() -> int { throw BadMessage("seen"); }), BadMessage);
  thread.Do([&] { unit.reset(); });
}

TEST(Streams, ArriveAsTheyWereSentAtTheirPace) {
  Loop loop;
  AudioReceiver receiver(loop, kHere);
  const auto start = Clock::now();
  AudioSender sender(loop, receiver.Local(), 44100, 0, PatternSource(50 * kPacketFrames));
  ASSERT_TRUE(sender.WaitEnd(std::chrono::seconds(20)));
  EXPECT_GE(Clock::now() - start, milliseconds(217));  // 50 * 192 / 44100 s
  ASSERT_TRUE(receiver.WaitCount(50));
  const StreamPacket& packet = receiver.Packets()[1];
  EXPECT_EQ(Bytes(packet.bytes.begin(), packet.bytes.begin() + 15),
            (Bytes{0x02, 0xCA, 0, 1, 0, 0, 0, 192, 0, 0, 0, 0, 0x00, 0xAA, 0xAA}));
  EXPECT_EQ(MarkOf(packet.Audio()), 0);
  StreamStats stats;
  for (const StreamPacket& each : receiver.Packets())
    stats.Add(each);
  EXPECT_EQ(stats.Lost() + stats.outOfOrder + stats.duplicates + stats.foreign, 0U);
}

TEST(Streams, CarryNegativeCodes) {
  const Bytes bytes = EncodePacket({}, {{-4194303, -8388608}});
  EXPECT_EQ(Bytes(bytes.begin() + 12, bytes.end()), (Bytes{0xC0, 0x00, 0x01, 0x80, 0x00, 0x00}));
  EXPECT_EQ((StreamPacket{bytes, {}, {}}.Audio()), (Frames{{-4194303, -8388608}}));
}

// What a unit starts anew may come late, twice or not at all; only what was never sent is altered.
TEST(LoopBack, SaysAlteredOfForeignContentAlone) {
  const auto packet = [](uint64_t number, int32_t change = 0) {
    Frames frames = ctl::Noise(number);
    frames[100].left += change;
    return StreamPacket{EncodePacket({}, frames), {}, {}};
  };
  const StreamPacket silence{EncodePacket({}, Frames(kPacketFrames)), {}, {}};
  const auto sorted = ctl::SortNoise(
      {silence, packet(0), packet(1), packet(4), silence, packet(2), packet(2), packet(5, 1)});
  EXPECT_EQ(sorted.exact, 3U);
  EXPECT_EQ(sorted.reordered, 1U);
  EXPECT_EQ(sorted.repeated, 1U);
  EXPECT_EQ(sorted.altered, 1U);
  EXPECT_EQ(sorted.Lost(), ctl::kNoisePackets - 4);
  EXPECT_FALSE(sorted.IsGood());
}

// Ten seconds of a sender whose clock runs fast, each packet a little late: by what comes around
// every seven packets, and one in fifty by 25 ms, which is more than units wait for.
TEST(StreamTiming, FindsDriftAndWhatCameTooLate) {
  for (const double ppm : {0.0, 50.0, -200.0}) {
    StreamTiming timing;
    StreamHeader header;
    for (int i = 0; i < 2500; ++i) {
      const double lateMs = i % 50 == 49 ? 25 : 0.3 * (i % 7);
      const double ms = i * 4.0 / (1 + ppm / 1e6) + lateMs;
      timing.Add(header, Clock::time_point() + std::chrono::microseconds(std::llround(1e3 * ms)));
      header.timestamp += kPacketFrames;
      if (i == 1000) {
        EXPECT_FALSE(timing.DriftPpm().has_value()) << "after four seconds";
      }
    }
    EXPECT_NEAR(timing.DriftPpm().value_or(1e9), ppm, 2);
    EXPECT_EQ(timing.Late(), 50U);
    if (ppm == 0) {
      const auto& delays = timing.Delays();  // to 0.1, 0.25, 0.5, 1, 2, 5, 10, 20 ms, and beyond
      EXPECT_NEAR(static_cast<double>(delays[0]), 2450 / 7.0, 10);
      EXPECT_EQ(delays[5] + delays[6] + delays[7], 0U);
      EXPECT_EQ(delays[8], 50U);
    }
    // Another stream, such as after a restart, is measured anew.
    header.timestamp += 1'000'000'000;
    timing.Add(header, Clock::time_point() + std::chrono::seconds(11));
    EXPECT_FALSE(timing.DriftPpm().has_value());
    EXPECT_EQ(timing.Late(), 50U);
  }
}

TEST(StreamStats, SeesClippingAndThePattern) {
  StreamStats stats;
  StreamHeader header;
  const auto add = [&](const Frames& frames) {
    stats.Add({EncodePacket(header, frames), {}, Clock::time_point()});
    ++header.sequence;
  };
  Frames frames(kPacketFrames);
  frames[0].left = frames[2].left = kFullScale;  // true peaks
  frames[190].right = frames[191].right = -kFullScale;
  add(frames);
  EXPECT_EQ(stats.clipped[0] + stats.clipped[1], 0U);
  frames[0].right = kFullScale;  // the third in a row
  add(frames);
  EXPECT_EQ(stats.clipped[0], 0U);
  EXPECT_EQ(stats.clipped[1], 1U);
  for (int i = 0; i < 9; ++i)
    add(Pattern(i));
  EXPECT_FALSE(stats.HasPattern());
  add(Pattern());
  EXPECT_TRUE(stats.HasPattern());
  add(frames);
  EXPECT_FALSE(stats.HasPattern());
}

}  // namespace
}  // namespace wire
