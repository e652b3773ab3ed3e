// The lines of the log that wait for its writer, in blocks of memory: as a rule adding a line
// costs a copy and no allocation, and a queue that grows never moves the lines it holds. No lock of
// its own.
#pragma once

#include <algorithm>
#include <initializer_list>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

class LogQueue {
 public:
  struct Block {
    std::wstring text;                     // of fixed capacity, so that its characters never move
    std::vector<std::wstring_view> lines;  // oldest first
  };

  bool Empty() const { return blocks_.empty(); }

  // Appends one line, made of those parts. Throws std::bad_alloc and then holds what it held.
  void Push(std::initializer_list<std::wstring_view> parts) {
    size_t size = 0;
    for (const std::wstring_view part : parts)
      size += part.size();
    if (blocks_.empty() || blocks_.back().text.capacity() - blocks_.back().text.size() < size)
      blocks_.push_back(NewBlock(size));
    Block& block = blocks_.back();
    block.lines.emplace_back(block.text.data() + block.text.size(), size);
    for (const std::wstring_view part : parts)
      block.text += part;
  }

  // All blocks, oldest first; the queue is empty then. Throws nothing.
  std::vector<Block> TakeAll() { return std::exchange(blocks_, {}); }

  // Takes a block back that has been dealt with, to use its memory again. Throws nothing.
  void GiveBack(Block block) {
    if (block.text.capacity() > 2 * kBlockUnits) return;  // of one very long line
    block.text.clear();
    block.lines.clear();
    spare_ = std::move(block);
  }

 private:
  // Some eighty lines of usual length: 32 KiB where wchar_t has four bytes.
  static constexpr size_t kBlockUnits = 8192;
  static constexpr size_t kBlockLines = 80;

  Block NewBlock(size_t size) {
    Block block = std::exchange(spare_, {});
    block.text.reserve(std::max(kBlockUnits, size));
    block.lines.reserve(kBlockLines);
    return block;
  }

  std::vector<Block> blocks_;
  Block spare_;
};
