// The byte buffer that every datagram travels in, held by shared pointer. No lock: written by one
// thread before it is handed on.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <utility>

namespace Network {

class Packet {
 public:
  // Size 0; the bytes of the capacity are zero.
  explicit Packet(size_t capacity) : bytes_(new uint8_t[capacity]()), capacity_(capacity) {}
  virtual ~Packet() = default;
  Packet(const Packet&) = delete;
  Packet& operator=(const Packet&) = delete;

  uint8_t* Data() { return bytes_.get(); }
  const uint8_t* Data() const { return bytes_.get(); }
  size_t Size() const { return size_; }
  size_t Capacity() const { return capacity_; }

  // Up to the capacity nothing moves and bytes keep their values. Beyond it the capacity grows; new
  // bytes are zero.
  void Resize(size_t size) {
    if (size > capacity_) {
      std::unique_ptr<uint8_t[]> bytes(new uint8_t[size]());
      std::memcpy(bytes.get(), bytes_.get(), size_);
      bytes_ = std::move(bytes);
      capacity_ = size;
    }
    size_ = size;
  }

 private:
  std::unique_ptr<uint8_t[]> bytes_;
  size_t capacity_;
  size_t size_ = 0;
};

}  // namespace Network
