#include "json/KeyIndex.h"

#include <algorithm>

namespace JSON {

namespace {

// Most objects are messages: room for those from the start.
constexpr size_t kUsualKeys = 16;
constexpr size_t kUsualTexts = 160;

// Where two keys have different heads, their order is that of the heads. A short key is filled with
// zeros, which puts it in front of its continuations.
uint64_t HeadOf(std::wstring_view key) {
  uint64_t head = 0;
  for (size_t i = 0; i < 4; ++i)
    head = head << 16 | (i < key.size() ? static_cast<uint16_t>(key[i]) : 0u);
  return head;
}

}  // namespace

KeyIndex::KeyIndex(const KeyIndex& other)
    : list_(other.list_ ? std::make_unique<List>(*other.list_) : nullptr) {}

bool KeyIndex::Before(const Entry& entry, uint64_t head, std::wstring_view key) const {
  return entry.head != head ? entry.head < head : TextOf(entry) < key;
}

const uint64_t* KeyIndex::Find(std::wstring_view key) const {
  if (!list_) return nullptr;
  const uint64_t head = HeadOf(key);
  const std::vector<Entry>& entries = list_->entries;
  const auto is = [&](const Entry& entry) { return entry.head == head && TextOf(entry) == key; };
  if (!list_->settled) {
    const auto last = std::find_if(entries.rbegin(), entries.rend(), is);
    return last == entries.rend() ? nullptr : &last->index;
  }
  const auto found = std::lower_bound(
      entries.begin(), entries.end(), key,
      [&](const Entry& entry, std::wstring_view) { return Before(entry, head, key); });
  return found == entries.end() || !is(*found) ? nullptr : &found->index;
}

KeyIndex::Entry KeyIndex::Store(std::wstring_view key, uint64_t index) {
  if (!list_) {
    list_ = std::make_unique<List>();
    list_->entries.reserve(kUsualKeys);
    list_->texts.reserve(kUsualTexts);
  }
  const size_t begin = list_->texts.size();
  list_->texts.append(key);
  return {HeadOf(key), begin, key.size(), index};
}

void KeyIndex::Insert(std::wstring_view key, uint64_t index) {
  Settle();
  const Entry added = Store(key, index);
  std::vector<Entry>& entries = list_->entries;
  const auto place = std::lower_bound(
      entries.begin(), entries.end(), key,
      [&](const Entry& entry, std::wstring_view) { return Before(entry, added.head, key); });
  entries.insert(place, added);
}

void KeyIndex::Append(std::wstring_view key, uint64_t index) {
  const Entry added = Store(key, index);
  list_->entries.push_back(added);
  list_->settled = false;
}

void KeyIndex::Settle() {
  if (!list_ || list_->settled) return;
  std::vector<Entry>& entries = list_->entries;
  const auto before = [&](const Entry& a, const Entry& b) {
    if (a.head != b.head) return a.head < b.head;
    const int order = TextOf(a).compare(TextOf(b));
    return order != 0 ? order < 0 : a.index > b.index;
  };
  // What the system itself writes is sorted already.
  if (!std::is_sorted(entries.begin(), entries.end(), before)) {
    std::sort(entries.begin(), entries.end(), before);
  }
  const auto same = [&](const Entry& a, const Entry& b) {
    return a.head == b.head && TextOf(a) == TextOf(b);
  };
  entries.erase(std::unique(entries.begin(), entries.end(), same), entries.end());
  list_->settled = true;
}

}  // namespace JSON
