#include "LoanBook.h"

#include <algorithm>
#include <chrono>
#include <random>
#include <stdexcept>
#include <thread>

#include "HeldFile.h"
#include "StateFiles.h"
#include "platform/errors.h"

namespace ctl {

using wire::Json;

namespace {

constexpr const wchar_t* kEnding = L".loans";

// A second in all.
constexpr int kExchangeAttempts = 200;
constexpr auto kExchangePause = std::chrono::milliseconds(5);

Json ToJson(const LoanRecord& loan, bool returned) {
  Json formers = Json::array();
  for (const wire::Destination& former : loan.formers)
    formers.push_back(ToText(former));
  return Json::object({{"returned", returned},
                       {"control", loan.control.ToText()},
                       {"unit_id", loan.unitId},
                       {"input", loan.input},
                       {"here", loan.here.ToText()},
                       {"formers", formers},
                       {"command", loan.command},
                       {"since", loan.since}});
}

wire::Endpoint ParseAddress(const Json& text) {
  const auto endpoint = wire::Endpoint::Parse(text.get<std::string>());
  if (!endpoint) throw std::invalid_argument("no address");
  return *endpoint;
}

LoanRecord ToLoan(const Json& line) {
  LoanRecord loan;
  loan.control = ParseAddress(line.at("control"));
  loan.unitId = line.at("unit_id");
  loan.input = line.at("input");
  loan.here = ParseAddress(line.at("here"));
  for (const Json& former : line.at("formers")) {
    loan.formers.push_back(former == ToText(wire::Destination()) ? wire::Destination()
                                                                 : ParseAddress(former));
  }
  if (loan.formers.empty()) throw std::invalid_argument("no former destination");
  loan.command = line.at("command");
  loan.since = line.at("since");
  return loan;
}

// What a file says is still lent. The end of a line that is being written, or never was written to
// its end, is none.
std::vector<LoanRecord> Parse(const std::string& text) {
  std::vector<LoanRecord> loans;
  for (size_t begin = 0, end = 0; (end = text.find('\n', begin)) != std::string::npos;
       begin = end + 1) {
    try {
      const Json line = Json::parse(text.substr(begin, end - begin));
      const LoanRecord loan = ToLoan(line);
      std::erase_if(loans, [&](const LoanRecord& other) { return other.IsSame(loan); });
      if (!line.at("returned").get<bool>()) loans.push_back(loan);
    } catch (const std::exception&) {
      // Not written by this program; what is in order counts all the same.
    }
  }
  return loans;
}

std::vector<std::wstring> Files() {
  const std::wstring folder = StateFolder();
  std::vector<std::wstring> files;
  platform::FileHandle listing = platform::kNoFile;
  platform::FileEntry entry;
  if (folder.empty() || platform::ListOpen((folder + L"*.*").c_str(), &listing, &entry) != 0) {
    return files;
  }
  uint32_t error = 0;
  do {
    if (error == 0 && entry.name.ends_with(kEnding)) files.push_back(folder + entry.name);
    error = platform::ListNext(listing, &entry);
  } while (error == 0 || error == platform::kNoTranslation);
  platform::ListClose(listing);
  return files;
}

}  // namespace

LoanBook::~LoanBook() {
  if (file_ == platform::kNoFile) return;
  platform::FileClose(file_);
  if (open_.empty()) platform::PathRemove(path_.c_str());
}

// A name that is in use, or a file that somebody looks at in its first moment, leads to another
// name.
bool LoanBook::Open() {
  if (file_ != platform::kNoFile) return true;
  const std::wstring folder = StateFolder();
  if (folder.empty()) return false;
  MakeStateFolder();
  std::random_device random;
  for (int attempt = 0; attempt < 10; ++attempt) {
    path_ = folder + std::to_wstring(random()) + kEnding;
    if (platform::FileOpen(path_.c_str(), Alone(platform::Disposition::CreateNew), &file_,
                           nullptr) == 0) {
      return true;
    }
  }
  return false;
}

bool LoanBook::Append(const Json& line) {
  const std::string text = line.dump(-1, ' ', true, Json::error_handler_t::replace) + "\n";
  uint32_t done = 0;
  return platform::FileWrite(file_, text.data(), static_cast<uint32_t>(text.size()), &done) == 0;
}

bool LoanBook::Lend(const std::vector<LoanRecord>& loans) {
  if (!Open()) return false;
  bool kept = true;
  for (const LoanRecord& loan : loans) {
    open_.push_back(loan);
    kept = Append(ToJson(loan, false)) && kept;
  }
  return platform::FileFlush(file_) == 0 && kept;
}

void LoanBook::Returned(const LoanRecord& loan) {
  std::erase_if(open_, [&](const LoanRecord& other) { return other.IsSame(loan); });
  if (file_ != platform::kNoFile) Append(ToJson(loan, true));
}

std::vector<LoanRecord> LoanBook::Running() {
  std::vector<LoanRecord> all;
  for (const std::wstring& file : Files()) {
    if (!IsHeld(file)) continue;
    const std::vector<LoanRecord> loans = Parse(ReadStateFile(file));
    all.insert(all.end(), loans.begin(), loans.end());
  }
  return all;
}

// An empty file may be one that its process has made this very moment.
std::vector<LoanBook::Left> LoanBook::LeftBehind() {
  std::vector<Left> all;
  for (const std::wstring& file : Files()) {
    if (IsHeld(file)) continue;
    const std::string text = ReadStateFile(file);
    if (!text.empty()) all.push_back({file, Parse(text)});
  }
  return all;
}

void LoanBook::Remove(const Left& left) {
  platform::PathRemove(left.file.c_str());
}

LoanBook::Exchange::Exchange() {
  if (depth_++ > 0) return;
  const std::wstring folder = StateFolder();
  if (folder.empty()) return;
  MakeStateFolder();
  const std::wstring path = folder + L"borrow.lock";
  for (int attempt = 0; attempt < kExchangeAttempts; ++attempt) {
    if (attempt > 0) std::this_thread::sleep_for(kExchangePause);
    const uint32_t error =
        platform::FileOpen(path.c_str(), Alone(platform::Disposition::OpenAlways), &file_, nullptr);
    if (error == 0) return;
    file_ = platform::kNoFile;
    if (error != platform::kBusy) return;
  }
}

LoanBook::Exchange::~Exchange() {
  if (--depth_ > 0 || file_ == platform::kNoFile) return;
  platform::FileClose(file_);
  file_ = platform::kNoFile;
}

LoanBook::Turn::Turn() {
  const std::wstring folder = StateFolder();
  if (folder.empty()) return;
  const std::wstring path = folder + L"restore.lock";
  if (platform::FileOpen(path.c_str(), Alone(platform::Disposition::OpenAlways), &file_, nullptr) !=
      0) {
    file_ = platform::kNoFile;
  }
}

LoanBook::Turn::~Turn() {
  if (file_ != platform::kNoFile) platform::FileClose(file_);
}

}  // namespace ctl
