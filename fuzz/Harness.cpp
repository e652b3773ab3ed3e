#include "Harness.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <memory>

#include "runtime/Environment.h"
#include "runtime/LogForms.h"

namespace {

class SilentLog final : public LogForms {
 public:
  void SetSniffer(IDebugLogSniffer*) override {}

 private:
  void WriteText(std::wstring_view) override {}
};

class SilentEnvironment final : public IEnvironment {
 public:
  std::shared_ptr<IDebugLog> GetLog() override { return log_; }

 private:
  std::shared_ptr<IDebugLog> log_ = std::make_shared<SilentLog>();
};

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  SetEnvironmentFactory(
      []() -> std::unique_ptr<IEnvironment> { return std::make_unique<SilentEnvironment>(); });
  return 0;
}

namespace fuzz {

void Require(bool holds, const char* what) {
  if (holds) return;
  std::fprintf(stderr, "This doesn't hold: %s\n", what);
  std::abort();
}

uint8_t Input::U8() {
  if (size_ == 0) return 0;
  --size_;
  return *data_++;
}

uint16_t Input::U16() {
  const unsigned low = U8();
  return static_cast<uint16_t>(low | static_cast<unsigned>(U8()) << 8);
}

uint32_t Input::U32() {
  const uint32_t low = U16();
  return low | static_cast<uint32_t>(U16()) << 16;
}

std::vector<uint8_t> Input::Bytes(size_t count) {
  count = std::min(count, size_);
  std::vector<uint8_t> bytes(data_, data_ + count);
  data_ += count;
  size_ -= count;
  return bytes;
}

std::wstring Input::Units(size_t count) {
  std::wstring text;
  for (; count > 0 && size_ > 0; --count)
    text += static_cast<wchar_t>(U16());
  return text;
}

}  // namespace fuzz
