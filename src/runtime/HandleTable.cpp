#include "runtime/HandleTable.h"

#include <new>
#include <utility>

namespace fs {

OsFileHandle::OsFileHandle(platform::FileHandle opened, HandleTable* table)
    : handle(opened), owner(table), slot(table->Enter(this)) {}

OsFileHandle::~OsFileHandle() {
  if (slot != kNoSlot) owner->Leave(slot);
}

bool OsFileHandle::IsOpen() const {
  return slot != kNoSlot;
}

HandleTable::~HandleTable() {
  std::vector<OsFileHandle*> left;
  {
    std::lock_guard lock(lock_);
    left.swap(handles_);
  }
  for (OsFileHandle* handle : left) {
    if (!handle) continue;
    handle->slot = OsFileHandle::kNoSlot;  // there is no table any more that it could leave
    delete handle;
  }
}

// A free place, searched from the hint on in a circle. There is one.
uint64_t HandleTable::FindFree() const {
  uint64_t place = hint_;
  while (handles_[place]) {
    place = (place + 1) % handles_.size();
  }
  return place;
}

uint64_t HandleTable::Enter(OsFileHandle* handle) {
  std::lock_guard lock(lock_);
  if (hint_ >= handles_.size()) hint_ = 0;
  if (used_ < handles_.size()) {
    hint_ = FindFree();
    handles_[hint_] = handle;
  } else {
    try {
      handles_.push_back(handle);
    } catch (const std::bad_alloc&) {
      return OsFileHandle::kNoSlot;
    }
    hint_ = handles_.size() - 1;
  }
  ++used_;
  return hint_;
}

void HandleTable::Leave(uint64_t slot) {
  std::lock_guard lock(lock_);
  const uint64_t size = handles_.size();
  if (slot >= size) return;
  handles_[slot] = nullptr;
  --used_;
  if (slot == hint_) return;
  if (hint_ < size && !handles_[hint_]) {
    // The hint already names a free place, and the search goes on from there round the table. Of
    // two free places the hint keeps the one that the search meets first, as far as half the table:
    // with 8 places and the hint at 2, leaving place 4 changes nothing (2 ahead), leaving place 1
    // makes that the hint (7 ahead, so nearer backwards).
    const uint64_t ahead = (slot + size - hint_) % size;
    if (2 * ahead <= size) return;
  }
  hint_ = slot;
}

size_t HandleTable::Size() const {
  std::lock_guard lock(lock_);
  return handles_.size();
}

uint32_t HandleTable::Used() const {
  std::lock_guard lock(lock_);
  return used_;
}

}  // namespace fs
