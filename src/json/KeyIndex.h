// The keys of a JSON object, each with the index of its member. Belongs to one thread at a time.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace JSON {

// Ascending by plain comparison of code units; a proper prefix comes first. The texts of all keys
// stand in one string, so an object of any size makes three allocations and not two a key.
class KeyIndex {
 public:
  KeyIndex() = default;
  KeyIndex(const KeyIndex& other);
  KeyIndex(KeyIndex&&) noexcept = default;
  KeyIndex& operator=(KeyIndex&&) noexcept = default;

  bool Empty() const { return !list_ || list_->entries.empty(); }

  // Null when the key is absent. The pointer is valid until the next change.
  const uint64_t* Find(std::wstring_view key) const;

  // Adds a key that is absent. Takes time in proportion to the number of keys.
  void Insert(std::wstring_view key, uint64_t index);

  // For a parser that meets many keys, some of them perhaps twice: Append takes no notice of the
  // order, Settle then sorts once, and of a key's indexes the largest stays. In between, Find is
  // slow and ForEach makes a copy.
  void Append(std::wstring_view key, uint64_t index);
  void Settle();

  // visit(std::wstring_view key, uint64_t index) in ascending order.
  template <typename Visit>
  void ForEach(Visit visit) const {
    if (!list_) return;
    if (!list_->settled) {
      KeyIndex copy(*this);
      copy.Settle();
      copy.ForEach(visit);
      return;
    }
    for (const Entry& entry : list_->entries)
      visit(TextOf(entry), entry.index);
  }

 private:
  struct Entry {
    uint64_t head;  // the first four code units: they alone distinguish most keys
    size_t begin;   // in List::texts
    size_t size;
    uint64_t index;
  };
  struct List {
    std::vector<Entry> entries;
    std::wstring texts;
    bool settled = true;
  };

  std::wstring_view TextOf(const Entry& entry) const {
    return std::wstring_view(list_->texts).substr(entry.begin, entry.size);
  }
  bool Before(const Entry& entry, uint64_t head, std::wstring_view key) const;
  Entry Store(std::wstring_view key, uint64_t index);

  std::unique_ptr<List> list_;  // null while there is no key
};

}  // namespace JSON
