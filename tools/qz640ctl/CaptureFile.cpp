// The pcapng format is that of the IETF draft "PCAP Now Generic (pcapng) Capture File Format"; the
// link types are those of the tcpdump group's registry, "Link-Layer Header Types".
#include "CaptureFile.h"

#include <algorithm>
#include <cmath>
#include <utility>

#include "ExitStatus.h"

namespace ctl {

using wire::Bytes;
using wire::Endpoint;

namespace {

constexpr uint32_t kSectionHeader = 0x0A0D0D0A;
constexpr uint32_t kByteOrder = 0x1A2B3C4D;
constexpr uint32_t kInterfaceBlock = 1;
constexpr uint32_t kSimplePacket = 3;
constexpr uint32_t kEnhancedPacket = 6;
constexpr size_t kMostBlock = 1 << 20;  // bytes; a UDP datagram has 64 KiB at most
constexpr int64_t kNanoseconds = 1'000'000'000;
constexpr uint64_t kLatest = 8'600'000'000;  // seconds since 1970

uint32_t BigEndian(const Bytes& bytes, size_t at, size_t count) {
  uint32_t value = 0;
  for (size_t i = 0; i < count; ++i)
    value = value << 8 | bytes[at + i];
  return value;
}

void PutLittleEndian(Bytes& bytes, uint64_t value, int count) {
  for (int i = 0; i < count; ++i)
    bytes.push_back(static_cast<uint8_t>(value >> 8 * i & 0xFF));
}

// Where the IPv4 header begins; nothing for another protocol or a link that isn't known.
std::optional<size_t> NetworkAt(const CapturedFrame& frame) {
  constexpr uint32_t kIpv4 = 0x0800;
  const Bytes& bytes = frame.bytes;
  const auto after = [&](size_t typeAt, size_t headerBytes) -> std::optional<size_t> {
    if (bytes.size() < headerBytes || BigEndian(bytes, typeAt, 2) != kIpv4) return std::nullopt;
    return headerBytes;
  };
  switch (frame.linkType) {
    case 0:  // BSD loopback; its number for IPv4 stands in the byte order of whoever captured
    case 108:
      if (bytes.size() < 4 || (bytes[0] != 2 && bytes[3] != 2)) return std::nullopt;
      return 4;
    case 1: {  // Ethernet; each VLAN tag (IEEE 802.1Q, 802.1ad) comes before the type
      size_t typeAt = 12;
      while (bytes.size() >= typeAt + 6 &&
             (BigEndian(bytes, typeAt, 2) == 0x8100 || BigEndian(bytes, typeAt, 2) == 0x88A8)) {
        typeAt += 4;
      }
      return after(typeAt, typeAt + 2);
    }
    case 12:  // raw IP, as some systems number it, and in the registry
    case 101:
    case 228:
      return 0;
    case 113:  // Linux cooked capture
      return after(14, 16);
    case 276:  // and its second version
      return after(0, 20);
    default:
      return std::nullopt;
  }
}

}  // namespace

std::optional<CapturedDatagram> ToDatagram(const CapturedFrame& frame) {
  constexpr uint32_t kUdp = 17;
  constexpr size_t kUdpHeader = 8;
  const Bytes& bytes = frame.bytes;
  const auto ip = NetworkAt(frame);
  if (!ip || bytes.size() < *ip + 20 || bytes[*ip] >> 4 != 4) return std::nullopt;
  const size_t headerBytes = size_t{4} * (bytes[*ip] & 0xFU);
  const uint32_t fragment = BigEndian(bytes, *ip + 6, 2) & 0x3FFF;  // more to come, or an offset
  const size_t udp = *ip + headerBytes;
  if (headerBytes < 20 || fragment != 0 || bytes[*ip + 9] != kUdp ||
      bytes.size() < udp + kUdpHeader) {
    return std::nullopt;
  }
  const size_t length = BigEndian(bytes, udp + 4, 2);
  if (length < kUdpHeader || bytes.size() < udp + length) return std::nullopt;
  CapturedDatagram datagram;
  datagram.time = frame.time;
  datagram.from = {BigEndian(bytes, *ip + 12, 4), static_cast<uint16_t>(BigEndian(bytes, udp, 2))};
  datagram.to = {BigEndian(bytes, *ip + 16, 4),
                 static_cast<uint16_t>(BigEndian(bytes, udp + 2, 2))};
  const auto begin = bytes.begin() + static_cast<std::ptrdiff_t>(udp);
  datagram.payload.assign(begin + kUdpHeader, begin + static_cast<std::ptrdiff_t>(length));
  return datagram;
}

CaptureReader::CaptureReader(const std::string& path)
    : CaptureReader(path, std::make_unique<std::ifstream>(path, std::ios::binary)) {}

CaptureReader::CaptureReader(const std::string& path, std::unique_ptr<std::istream> file)
    : path_(path), file_(std::move(file)) {
  if (!*file_)
    throw Failure{kUsage, "can't open \"" + path + "\"; is it there, and may you read it?"};
  const auto magic = Read(4);
  if (!magic) Fail("it has no four bytes");
  const uint32_t number = BigEndian(*magic, 0, 4);
  if (number == kSectionHeader) {
    isPcapng_ = true;
    file_->seekg(0);
    return;
  }
  // The magic number of a pcap file says its byte order and whether times are in nanoseconds.
  const bool micro = number == 0xA1B2C3D4 || number == 0xD4C3B2A1;
  const bool nano = number == 0xA1B23C4D || number == 0x4D3CB2A1;
  if (!micro && !nano) Fail("it is neither a pcap nor a pcapng file");
  bigEndian_ = number >> 24 == 0xA1;
  const auto header = Read(20);
  if (!header) Fail("its header is cut off");
  interfaces_.push_back({Number(*header, 16, 4) & 0xFFFF, nano ? kNanoseconds : 1'000'000});
}

std::optional<CapturedFrame> CaptureReader::Next() {
  return isPcapng_ ? NextOfPcapng() : NextOfPcap();
}

void CaptureReader::Fail(const std::string& why) const {
  throw Failure{kUsage, "\"" + path_ + "\" is no capture that can be read: " + why};
}

// Nothing where the file ends before.
std::optional<Bytes> CaptureReader::Read(size_t count) {
  Bytes bytes(count);
  file_->read(reinterpret_cast<char*>(bytes.data()), static_cast<std::streamsize>(count));
  if (static_cast<size_t>(file_->gcount()) != count) return std::nullopt;
  return bytes;
}

// Of up to four bytes, in the file's byte order.
uint32_t CaptureReader::Number(const Bytes& bytes, size_t at, size_t count) const {
  if (at + count > bytes.size()) Fail("a block is too short for what it says");
  if (bigEndian_) return BigEndian(bytes, at, count);
  uint32_t value = 0;
  for (size_t i = count; i > 0; --i)
    value = value << 8 | bytes[at + i - 1];
  return value;
}

// A capture program that is killed leaves half a frame at the end, which is no fault of the rest.
std::optional<CapturedFrame> CaptureReader::NextOfPcap() {
  const auto header = Read(16);
  if (!header) return std::nullopt;
  const uint32_t length = Number(*header, 8, 4);
  if (length > kMostBlock) Fail("a frame of " + std::to_string(length) + " bytes");
  auto bytes = Read(length);
  if (!bytes) return std::nullopt;
  const Interface& interface = interfaces_.front();
  return CapturedFrame{interface.linkType,
                       Number(*header, 0, 4) * kNanoseconds +
                           Number(*header, 4, 4) * (kNanoseconds / interface.ticksPerSecond),
                       std::move(*bytes)};
}

std::optional<CapturedFrame> CaptureReader::NextOfPcapng() {
  for (;;) {
    const auto head = Read(8);
    if (!head) return std::nullopt;
    if (BigEndian(*head, 0, 4) == kSectionHeader) {
      // The length can be read only by the byte order, which stands after it.
      const auto order = Read(4);
      if (!order) return std::nullopt;
      bigEndian_ = BigEndian(*order, 0, 4) == kByteOrder;
      if (!bigEndian_ && Number(*order, 0, 4) != kByteOrder) Fail("a section without a byte order");
      const uint32_t length = Number(*head, 4, 4);
      if (length < 28 || length > kMostBlock) Fail("a section header of an impossible length");
      if (!Read(length - 12)) return std::nullopt;
      interfaces_.clear();
      continue;
    }
    const uint32_t type = Number(*head, 0, 4);
    const uint32_t length = Number(*head, 4, 4);
    if (length < 12 || length % 4 != 0 || length > kMostBlock)
      Fail("a block of an impossible length");
    const auto body = Read(length - 8);  // the length comes once more at the end
    if (!body) return std::nullopt;
    if (auto frame = FromBlock(type, *body)) return frame;
  }
}

// Blocks that aren't known are skipped, as the format wants it.
std::optional<CapturedFrame> CaptureReader::FromBlock(uint32_t type, const Bytes& body) {
  if (type == kInterfaceBlock) interfaces_.push_back(ToInterface(body));
  if (type != kEnhancedPacket && type != kSimplePacket) return std::nullopt;
  const bool simple = type == kSimplePacket;
  const uint32_t number = simple ? 0 : Number(body, 0, 4);
  if (number >= interfaces_.size()) Fail("a frame of an interface that the file doesn't describe");
  const size_t at = simple ? 4 : 20;
  if (body.size() < at + 4) Fail("a block is too short for what it says");
  const size_t room = body.size() - at - 4;
  const size_t length = simple ? std::min<size_t>(Number(body, 0, 4), room) : Number(body, 12, 4);
  if (length > room) Fail("a frame that is longer than its block");
  CapturedFrame frame;
  frame.linkType = interfaces_[number].linkType;
  if (!simple) {
    const uint64_t ticks = uint64_t{Number(body, 4, 4)} << 32 | Number(body, 8, 4);
    const auto perSecond = static_cast<uint64_t>(interfaces_[number].ticksPerSecond);
    // Times beyond the year 2242 are none, and would leave what 64 bits of nanoseconds hold.
    const uint64_t seconds = std::min<uint64_t>(ticks / perSecond, kLatest);
    const double rest = static_cast<double>(ticks % perSecond) / static_cast<double>(perSecond);
    frame.time = static_cast<int64_t>(seconds) * kNanoseconds + std::llround(rest * kNanoseconds);
  }
  const auto begin = body.begin() + static_cast<std::ptrdiff_t>(at);
  frame.bytes.assign(begin, begin + static_cast<std::ptrdiff_t>(length));
  return frame;
}

// Its option 9 has the ticks of its times: a power of ten, or of two with the highest bit set.
CaptureReader::Interface CaptureReader::ToInterface(const Bytes& body) const {
  Interface interface { Number(body, 0, 2) };
  for (size_t at = 8; at + 4 <= body.size() - 4;) {
    const uint32_t code = Number(body, at, 2);
    const uint32_t length = Number(body, at + 2, 2);
    if (code == 0) break;
    if (code == 9) {
      const uint32_t value = Number(body, at + 4, 1);
      const uint32_t power = value & 0x7F;
      const bool two = (value & 0x80) != 0;
      if (power > (two ? 62U : 18U)) Fail("an interface with an impossible resolution of time");
      interface.ticksPerSecond = 1;
      for (uint32_t i = 0; i < power; ++i)
        interface.ticksPerSecond *= two ? 2 : 10;
    }
    at += 4 + (length + 3) / 4 * 4;
  }
  return interface;
}

CaptureWriter::CaptureWriter(const std::string& path, uint32_t linkType)
    : path_(path), file_(path, std::ios::binary | std::ios::trunc) {
  if (!file_) {
    throw Failure{kUsage, "can't write \"" + path + "\"; is its folder there, and may you write?"};
  }
  Bytes section;
  PutLittleEndian(section, kByteOrder, 4);
  PutLittleEndian(section, 1, 2);  // version 1.0
  PutLittleEndian(section, 0, 2);
  PutLittleEndian(section, UINT64_MAX, 8);  // of unknown length
  Block(kSectionHeader, section);
  Bytes interface;
  PutLittleEndian(interface, linkType, 2);
  PutLittleEndian(interface, 0, 2);
  PutLittleEndian(interface, 0, 4);  // frames are whole
  PutLittleEndian(interface, 9, 2);  // times in nanoseconds
  PutLittleEndian(interface, 1, 2);
  PutLittleEndian(interface, 9, 4);
  PutLittleEndian(interface, 0, 4);  // end of the options
  Block(kInterfaceBlock, interface);
}

void CaptureWriter::Write(const CapturedFrame& frame) {
  Bytes body;
  const auto time = static_cast<uint64_t>(frame.time);
  PutLittleEndian(body, 0, 4);
  PutLittleEndian(body, time >> 32, 4);
  PutLittleEndian(body, time & 0xFFFFFFFF, 4);
  PutLittleEndian(body, frame.bytes.size(), 4);
  PutLittleEndian(body, frame.bytes.size(), 4);
  body.insert(body.end(), frame.bytes.begin(), frame.bytes.end());
  Block(kEnhancedPacket, std::move(body));
}

// Whole at once, so that a reader of the growing file finds whole blocks but for the last.
void CaptureWriter::Block(uint32_t type, Bytes body) {
  body.resize((body.size() + 3) / 4 * 4);
  Bytes block;
  PutLittleEndian(block, type, 4);
  PutLittleEndian(block, body.size() + 12, 4);
  block.insert(block.end(), body.begin(), body.end());
  PutLittleEndian(block, body.size() + 12, 4);
  file_.write(reinterpret_cast<const char*>(block.data()),
              static_cast<std::streamsize>(block.size()));
  file_.flush();
  if (!file_)
    throw Failure{kRefused, "can't write \"" + path_ + "\" any further; is the disk full?"};
}

}  // namespace ctl
