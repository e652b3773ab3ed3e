// What all logs have in common: the forms of writing, brought down to one. No lock, no thread.
#pragma once

#include <string_view>

#include "platform/text.h"
#include "runtime/IDebugLog.h"

class LogForms : public IDebugLog {
 public:
  void Write(const std::string& text) final { WriteText(Utf8ToWide(text)); }
  void Write(const char* text, size_t length) final { Write(std::string(text, length)); }
  void Write(const char* text) final { WriteText(Utf8ToWide(text)); }
  void Write(const std::wstring& text) final { WriteText(text); }
  void Write(const wchar_t* text, size_t length) final { WriteText({text, length}); }
  void Write(const wchar_t* text) final { WriteText(text); }

  // The second channel ends here. Malformed UTF-8 is an error all the same.
  void WriteDebug(const std::string& text) final { Utf8ToWide(text); }
  void WriteDebug(const char* text, size_t length) final { WriteDebug(std::string(text, length)); }
  void WriteDebug(const char* text) final { Utf8ToWide(text); }
  void WriteDebug(const std::wstring&) final {}
  void WriteDebug(const wchar_t*, size_t) final {}
  void WriteDebug(const wchar_t*) final {}

 private:
  // One text, as it was given, on the writing thread.
  virtual void WriteText(std::wstring_view text) = 0;
};
