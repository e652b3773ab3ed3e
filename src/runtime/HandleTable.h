// All open handles of the file layer. A place that was left is used again, so the table never grows
// beyond the most handles that were open at once. Any thread; has one lock, held only while a
// handle enters or leaves.
#pragma once

#include <cstdint>
#include <mutex>
#include <vector>

#include "platform/file.h"

namespace fs {

class HandleTable;

// The common base of open handles. Stands in its table from its construction to its end.
class OsFileHandle {
 public:
  OsFileHandle(platform::FileHandle opened, HandleTable* table);
  virtual ~OsFileHandle();
  OsFileHandle(const OsFileHandle&) = delete;
  OsFileHandle& operator=(const OsFileHandle&) = delete;

  // Whether the handle found a place in the table.
  virtual bool IsOpen() const;

  static constexpr uint64_t kNoSlot = 0xFFFFFFFF;

  platform::FileHandle handle;  // platform::kNoFile when closed
  HandleTable* owner;
  uint64_t slot;           // place in the table, or kNoSlot
  uint32_t lastError = 0;  // of the latest operation
};

class HandleTable {
 public:
  HandleTable() = default;
  ~HandleTable();  // deletes every handle that still stands in it
  HandleTable(const HandleTable&) = delete;
  HandleTable& operator=(const HandleTable&) = delete;

  // The place of `handle` from now on; OsFileHandle::kNoSlot if there is no memory for one.
  uint64_t Enter(OsFileHandle* handle);
  void Leave(uint64_t slot);

  size_t Size() const;    // places, free ones included
  uint32_t Used() const;  // places in use

 private:
  uint64_t FindFree() const;

  mutable std::mutex lock_;
  std::vector<OsFileHandle*> handles_;  // null marks a free place
  uint64_t hint_ = 0;                   // where the search for a free place begins
  uint32_t used_ = 0;
};

}  // namespace fs
