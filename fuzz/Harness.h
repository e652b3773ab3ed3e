// What the fuzz targets share. Each target defines LLVMFuzzerTestOneInput, which takes any bytes at
// all; libFuzzer's main or the one in Replay.cpp calls it, on one thread. The log of a target drops
// what it gets: failures are what the inputs are made for.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv);
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace fuzz {

// Ends the program with `what` unless `holds`, so that the fuzzer keeps the input.
void Require(bool holds, const char* what);

// Takes values off the front of an input; zeros once it is used up.
class Input {
 public:
  Input(const uint8_t* data, size_t size) : data_(data), size_(size) {}

  size_t Left() const { return size_; }
  uint8_t U8();
  uint16_t U16();  // little-endian, as the next
  uint32_t U32();
  std::vector<uint8_t> Bytes(size_t count);  // fewer when the input ends
  std::wstring Units(size_t count);          // UTF-16 code units, two bytes each

 private:
  const uint8_t* data_;
  size_t size_;
};

}  // namespace fuzz
