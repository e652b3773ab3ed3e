// The loans of this user's qz640ctl processes, kept in files so that a process that is killed
// doesn't leave inputs sent to a port where nobody listens.
//
// Each process has a file of its own in the state folder while it has borrowed something. It holds
// that file open for writing, alone: a file that another process can open so belongs to one that
// has ended. Lines are only added, each a JSON object, so a file can be read at any time.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "platform/file.h"
#include "wire/Units.h"

namespace ctl {

// An input that is sent here for a while.
struct LoanRecord {
  wire::Endpoint control;  // of the unit
  std::string unitId;
  uint32_t input = 0;
  wire::Endpoint here;  // where the borrower listens

  // Where it went before. All but the last are borrowers themselves, the latest first; the last is
  // where the input belongs (nothing: it is off).
  std::vector<wire::Destination> formers;

  std::string command = {};  // who borrowed it: "record"
  int64_t since = 0;         // when, in seconds since 1970-01-01 00:00:00 UTC

  // The same loan of the same input.
  bool IsSame(const LoanRecord& other) const {
    return control == other.control && input == other.input && here == other.here;
  }
};

class LoanBook {
 public:
  LoanBook() = default;
  ~LoanBook();  // the file goes with the latest return; what isn't returned stays in it
  LoanBook(const LoanBook&) = delete;
  LoanBook& operator=(const LoanBook&) = delete;

  // Makes a note that survives this process and the machine's fall. False where the system has no
  // place for it.
  bool Lend(const std::vector<LoanRecord>& loans);

  void Returned(const LoanRecord& loan);

  // What processes have borrowed that run now, this one included.
  static std::vector<LoanRecord> Running();

  // The files of processes that have ended, with what they didn't give back.
  struct Left {
    std::wstring file;
    std::vector<LoanRecord> loans;
  };
  static std::vector<Left> LeftBehind();
  static void Remove(const Left& left);

  // Between reading where an input goes and setting it, one process at a time. The others wait, but
  // for a second at most, as one may have been stopped in between. May be nested. On one thread.
  class Exchange {
   public:
    Exchange();
    ~Exchange();
    Exchange(const Exchange&) = delete;
    Exchange& operator=(const Exchange&) = delete;

   private:
    static inline int depth_ = 0;
    static inline platform::FileHandle file_ = platform::kNoFile;
  };

  // Gives back what was left, one process at a time: held as long as it lives.
  class Turn {
   public:
    Turn();
    ~Turn();
    Turn(const Turn&) = delete;
    Turn& operator=(const Turn&) = delete;

    bool IsMine() const { return file_ != platform::kNoFile; }

   private:
    platform::FileHandle file_ = platform::kNoFile;
  };

 private:
  bool Open();
  bool Append(const wire::Json& line);

  platform::FileHandle file_ = platform::kNoFile;
  std::wstring path_;
  std::vector<LoanRecord> open_;  // not returned
};

}  // namespace ctl
