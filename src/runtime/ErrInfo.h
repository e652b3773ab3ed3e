// The result of every operation that can fail. A failure can't be lost: the last holder of a
// failure that nobody handed on writes it to the debug log when it dies. So dropping a result is
// the ordinary way of logging a failure and going on.
//
// A copy takes over the duty to report, and the source loses it: printing by value or capturing in
// a lambda therefore counts as handing on. There are no move operations, as a moved-from failure
// would read as a success. A value of one thread at a time, without lock.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

// The payload of a failure, shared by all copies.
struct ErrData {
  static constexpr uint32_t CODE_ERROR = 1;
  static constexpr uint32_t TEXT_ERROR = 3;

  uint32_t code = 0;  // operating-system error number; 0 in a text failure
  uint32_t type = 0;  // CODE_ERROR or TEXT_ERROR
  std::wstring text;
};

class ErrInfo {
 public:
  // A success at that location. `method` is the qualified name of the function, `file` the source
  // path in the form src\Name; both are string literals. Use ERR_HERE.
  ErrInfo(const char* method, const char* file, int line);
  ErrInfo(const ErrInfo& other);
  ErrInfo& operator=(const ErrInfo& other);
  virtual ~ErrInfo();

  bool IsOk() const { return !data_; }

  // Make this a failure. A narrow text is UTF-8; what isn't becomes U+FFFD.
  ErrInfo& SetText(const wchar_t* text);
  ErrInfo& SetText(std::wstring text);
  ErrInfo& SetText(const char* text);
  ErrInfo& SetCode(uint32_t code, const wchar_t* text);
  ErrInfo& SetCode(uint32_t code, const std::wstring& text);

  // Ends the duty to report: Log by writing the failure to the debug log now, before what follows;
  // Forget by saying that it is none, such as a file that needn't be there. A success does nothing.
  void Log() const;
  void Forget() const { passedOn_ = true; }

  // The operating-system error number; 0 for a success and for a text failure.
  uint32_t Code() const { return data_ ? data_->code : 0; }

  // The bare text of the failure, for a caller that adds to it; empty for a success.
  std::wstring Text() const { return data_ ? data_->text : std::wstring(); }

  // The text form, with a leading blank and no line end; empty for a success.
  std::wstring ToString() const;

 private:
  ErrData& Data();

  std::shared_ptr<ErrData> data_;  // null means success
  const char* method_;
  const char* file_;
  int line_;
  mutable bool passedOn_ = false;  // the duty to report has moved on to a copy
};

// A success at the present location. Each source file names itself once in `kSourceFile`.
#define ERR_HERE(method) ErrInfo(method, kSourceFile, __LINE__)
