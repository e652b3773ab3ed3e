// Captures: what trace makes of them, and files that are broken.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>

#include "CaptureFile.h"
#include "ExitStatus.h"
#include "Tracer.h"
#include "wire/Audio.h"

namespace ctl {
namespace {

using wire::Bytes;
using wire::Endpoint;

const Endpoint kController("10.0.0.1", 40000);
const Endpoint kUnit("10.0.0.2", 8000);
constexpr int64_t kMs = 1'000'000;
constexpr int64_t kBegin = 1'700'000'000'000 * kMs;

void Put(Bytes& bytes, uint32_t value, int count) {
  for (int i = count - 1; i >= 0; --i)
    bytes.push_back(static_cast<uint8_t>(value >> 8 * i));
}

// An Ethernet frame with a VLAN tag.
CapturedFrame Frame(int64_t milliseconds, const Endpoint& from, const Endpoint& to,
                    const Bytes& payload) {
  Bytes bytes(12);
  Put(bytes, 0x8100'0007, 4);
  Put(bytes, 0x0800'4500, 4);
  Put(bytes, static_cast<uint32_t>(28 + payload.size()) << 16, 4);
  Put(bytes, 0x0000'4011, 4);
  Put(bytes, 0, 2);
  Put(bytes, from.address, 4);
  Put(bytes, to.address, 4);
  Put(bytes, from.port, 2);
  Put(bytes, to.port, 2);
  Put(bytes, static_cast<uint32_t>(8 + payload.size()) << 16, 4);
  bytes.insert(bytes.end(), payload.begin(), payload.end());
  bytes.resize(std::max<size_t>(bytes.size(), 64));  // short frames are filled up
  return {1, kBegin + milliseconds * kMs, bytes};
}

Bytes Text(const std::string& json) {
  Bytes bytes(json.begin(), json.end());
  bytes.push_back(0);
  return bytes;
}

class TraceTest : public testing::Test {
 protected:
  ~TraceTest() override { std::filesystem::remove(path_); }

  void Ask(int64_t at, uint32_t id) {
    frames_.push_back(Frame(at, kController, kUnit,
                            Text(R"({"msg":"get_inputs","msg_id":)" + std::to_string(id) + "}")));
  }
  void Say(int64_t at, const std::string& json) {
    frames_.push_back(Frame(at, kUnit, kController, Text(json)));
  }
  void Ack(int64_t at, uint32_t id) {
    Say(at, R"({"ack_msg_id":)" + std::to_string(id) + R"(,"msg":"ack","msg_id":900})");
  }

  void WriteFile() {
    CaptureWriter writer(path_, 1);
    for (const CapturedFrame& frame : frames_)
      writer.Write(frame);
  }
  void WriteBytes(const Bytes& bytes) {
    std::ofstream file(path_, std::ios::binary);
    file.write(reinterpret_cast<const char*>(bytes.data()),
               static_cast<std::streamsize>(bytes.size()));
  }
  Bytes FileBytes() const {
    std::ifstream file(path_, std::ios::binary);
    return Bytes(std::istreambuf_iterator<char>(file), {});
  }

  void Trace() {
    Tracer tracer;
    tracer.onMessage = [this](const TracedMessage& message) { messages_.push_back(message); };
    tracer.onStream = [this](const TracedStream& stream) { streams_.push_back(stream); };
    CaptureReader reader(path_);
    while (const auto frame = reader.Next()) {
      if (const auto datagram = ToDatagram(*frame)) tracer.Take(*datagram);
    }
    tracer.Settle(INT64_MAX);
  }

  // How many frames come before the end, or the words of what is broken.
  std::string Read() {
    try {
      CaptureReader reader(path_);
      size_t count = 0;
      while (const auto frame = reader.Next()) {
        ToDatagram(*frame);
        ++count;
      }
      return std::to_string(count);
    } catch (const Failure& failure) {
      return failure.text;
    }
  }

  const std::string path_ =
      (std::filesystem::temp_directory_path() /
       (std::string("trace-") + testing::UnitTest::GetInstance()->current_test_info()->name() +
        ".pcapng"))
          .string();
  std::vector<CapturedFrame> frames_;
  std::vector<TracedMessage> messages_;
  std::vector<TracedStream> streams_;
};

TEST_F(TraceTest, SaysWhatBecameOfEachMessage) {
  Ask(0, 1);
  Ack(1, 1);
  Ask(10, 2);  // its first transmission is lost, and the second acknowledged
  Ask(60, 2);
  Ack(61, 2);
  Say(62, R"({"code":7,"err_msg_id":2,"msg":"error","msg_id":901,"txt":"no"})");
  frames_.push_back(Frame(63, kController, kUnit, Text(R"({"msg":"get_inputs"})")));
  frames_.push_back(Frame(64, kController, Endpoint("10.0.0.255", 15001),
                          Text(R"({"msg":"dev_find","msg_id":5})")));
  for (int i = 0; i < 5; ++i)
    Ask(100 + 50 * i, 3);
  Ask(2000, 3);  // a new message of that number
  Ack(2080, 3);
  WriteFile();
  Trace();

  using Fate = TracedMessage::Fate;
  const struct {
    const char* type;
    uint32_t id;
    Fate fate;
    int transmissions;
    int64_t afterMs;
  } expected[] = {
      {"get_inputs", 0, Fate::Bad, 1, 0},          {"dev_find", 5, Fate::NeedsNone, 1, 0},
      {"get_inputs", 1, Fate::Acknowledged, 1, 1}, {"get_inputs", 2, Fate::Acknowledged, 2, 51},
      {"error", 901, Fate::NotAcknowledged, 1, 0}, {"get_inputs", 3, Fate::NotAcknowledged, 5, 0},
      {"get_inputs", 3, Fate::Acknowledged, 1, 80}};
  ASSERT_EQ(messages_.size(), std::size(expected));
  for (size_t i = 0; i < messages_.size(); ++i) {
    const TracedMessage& message = messages_[i];
    EXPECT_EQ(message.type, expected[i].type) << i;
    EXPECT_EQ(message.id, expected[i].id) << i;
    EXPECT_EQ(message.fate, expected[i].fate) << i;
    EXPECT_EQ(message.transmissions, expected[i].transmissions) << i;
    EXPECT_EQ(message.acknowledgedAfter, expected[i].afterMs * kMs) << i;
  }
  EXPECT_NE(messages_[0].why.find("\"msg_id\""), std::string::npos);
}

TEST_F(TraceTest, CountsWhatAStreamLacksInEachSecond) {
  int64_t at = 0;
  // 4 is lost, 7 comes out of order, 9 twice; then a second without a fault.
  std::vector<int> sequence{1, 2, 3, 5, 6, 8, 7, 9, 9};
  for (int i = 10; i < 500; ++i)
    sequence.push_back(i);
  for (const int number : sequence) {
    wire::StreamHeader header;
    header.sequence = static_cast<uint16_t>(number);
    header.timestamp = static_cast<uint32_t>(number) * 192;
    frames_.push_back(Frame(at += 4, kUnit, kController, EncodePacket(header, wire::Pattern())));
  }
  WriteFile();
  Trace();
  ASSERT_EQ(streams_.size(), 2U);
  EXPECT_EQ(streams_[0].packets, 250U);
  EXPECT_EQ(streams_[0].lost, 1U);
  EXPECT_EQ(streams_[0].outOfOrder, 1U);
  EXPECT_EQ(streams_[0].doubled, 1U);
  EXPECT_EQ(streams_[0].peak[0], 1.0);
  EXPECT_EQ(streams_[1].packets, 249U);
  EXPECT_EQ(streams_[1].lost + streams_[1].outOfOrder + streams_[1].doubled, 0U);
}

// Whatever is cut off or wrong in a file, reading it ends with frames or with a word on it.
TEST_F(TraceTest, BrokenFilesAreReadToTheirBreakOrRefused) {
  Ask(0, 1);
  Ack(1, 1);
  WriteFile();
  const Bytes whole = FileBytes();
  EXPECT_EQ(Read(), "2");
  for (size_t i = 0; i < whole.size(); ++i) {
    WriteBytes(Bytes(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(i)));
    EXPECT_NE(Read(), "2") << "cut off at " << i;
    for (const int value : {0x00, 0x7F, 0xFF}) {
      Bytes changed = whole;
      changed[i] = static_cast<uint8_t>(value);
      WriteBytes(changed);
      EXPECT_FALSE(Read().empty());
    }
  }
  // Older capture files, in either byte order, and what is none.
  const Bytes frame = frames_[0].bytes;
  const auto size = static_cast<uint32_t>(frame.size());
  Bytes big;
  for (const uint32_t word : {0xA1B23C4DU, 0x0002'0004U, 0U, 0U, 65535U, 1U, 7U, 5U, size, size})
    Put(big, word, 4);
  Bytes little;
  for (const uint32_t word : {0xD4C3B2A1U, 0x0200'0400U, 0U, 0U, 0xFFFF'0000U, 0x0100'0000U,
                              0x0700'0000U, 0x0500'0000U, size << 24, size << 24})
    Put(little, word, 4);
  const std::pair<Bytes*, int64_t> files[] = {{&big, 7'000'000'005}, {&little, 7'000'005'000}};
  for (const auto& [bytes, time] : files) {
    bytes->insert(bytes->end(), frame.begin(), frame.end());
    WriteBytes(*bytes);
    const auto read = CaptureReader(path_).Next();
    ASSERT_TRUE(read);
    EXPECT_EQ(read->time, time);
    EXPECT_EQ(ToDatagram(*read)->from, kController);
  }
  WriteBytes(Text("{}"));
  EXPECT_NE(Read().find("no capture that can be read"), std::string::npos);
}

}  // namespace
}  // namespace ctl
