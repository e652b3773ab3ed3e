#include "runtime/ErrInfo.h"

#include <utility>

#include "platform/text.h"
#include "runtime/Environment.h"

ErrInfo::ErrInfo(const char* method, const char* file, int line)
    : method_(method), file_(file), line_(line) {}

ErrInfo::ErrInfo(const ErrInfo& other)
    : data_(other.data_),
      method_(other.method_),
      file_(other.file_),
      line_(other.line_),
      passedOn_(std::exchange(other.passedOn_, true)) {}

ErrInfo& ErrInfo::operator=(const ErrInfo& other) {
  if (this == &other) return *this;
  data_ = other.data_;
  method_ = other.method_;
  file_ = other.file_;
  line_ = other.line_;
  passedOn_ = std::exchange(other.passedOn_, true);
  return *this;
}

ErrInfo::~ErrInfo() {
  Log();
}

void ErrInfo::Log() const {
  if (passedOn_ || !data_) return;
  passedOn_ = true;
  try {
    if (const auto log = GetDebugLog()) log->Write(ToString());
  } catch (...) {
    // Out of memory while reporting: nobody is left to hear of it.
  }
}

ErrData& ErrInfo::Data() {
  if (!data_) data_ = std::make_shared<ErrData>();
  return *data_;
}

ErrInfo& ErrInfo::SetText(const wchar_t* text) {
  return SetText(std::wstring(text));
}

ErrInfo& ErrInfo::SetText(std::wstring text) {
  ErrData& data = Data();
  data.type = ErrData::TEXT_ERROR;
  data.text = std::move(text);
  return *this;
}

ErrInfo& ErrInfo::SetText(const char* text) {
  return SetText(platform::Utf8ToWideLossy(text));
}

ErrInfo& ErrInfo::SetCode(uint32_t code, const wchar_t* text) {
  return SetCode(code, std::wstring(text));
}

ErrInfo& ErrInfo::SetCode(uint32_t code, const std::wstring& text) {
  ErrData& data = Data();
  data.type = ErrData::CODE_ERROR;
  data.code = code;
  data.text = text;
  return *this;
}

namespace {

std::wstring LowerHex(uint32_t value) {
  std::wstring digits;
  do {
    digits.insert(digits.begin(), L"0123456789abcdef"[value & 0xF]);
    value >>= 4;
  } while (value != 0);
  return digits;
}

}  // namespace

std::wstring ErrInfo::ToString() const {
  if (!data_) return {};
  std::wstring out;
  if (data_->type != ErrData::TEXT_ERROR) {
    out += L" ErrType=" + std::to_wstring(data_->type) + L" ErrCode=" + LowerHex(data_->code);
  }
  if (!data_->text.empty()) out += L" ErrStr=" + data_->text;
  out += L" Method=" + platform::Utf8ToWideLossy(method_);
  out += L" File=" + platform::Utf8ToWideLossy(file_);
  out += L" Line=" + std::to_wstring(line_);
  return out;
}
