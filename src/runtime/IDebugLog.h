// The program's one log as its users see it.
#pragma once

#include <cstddef>
#include <span>
#include <string>
#include <string_view>

// Listens to the log. Called on the log's writer thread, one call at a time.
class IDebugLogSniffer {
 public:
  // `line` is the complete formatted line, with its line end (carriage return, line feed).
  virtual void Sniff(const std::wstring& line) = 0;

  // What the log calls: all lines that have come since the latest call, oldest first, for a
  // listener that is quicker with many at once. The texts live as long as the call. Unless it is
  // overridden, each line goes to Sniff; one that throws costs that line alone.
  virtual void SniffAll(std::span<const std::wstring_view> lines) {
    for (const std::wstring_view line : lines) {
      try {
        Sniff(std::wstring(line));
      } catch (...) {
        // The listener couldn't show it; there is nobody else to report that to.
      }
    }
  }

 protected:
  ~IDebugLogSniffer() = default;
};

// Any thread may write; a call formats the line (local time, thread number), queues it and returns.
// Trailing U+0000 characters are dropped, and an empty text gives no line. The wide forms never
// fail; the narrow forms take UTF-8 and throw std::range_error when it is malformed.
class IDebugLog {
 public:
  virtual ~IDebugLog() = default;

  virtual void Write(const std::string& text) = 0;
  virtual void Write(const char* text, size_t length) = 0;
  virtual void Write(const char* text) = 0;
  virtual void Write(const std::wstring& text) = 0;
  virtual void Write(const wchar_t* text, size_t length) = 0;
  virtual void Write(const wchar_t* text) = 0;

  // A second channel with the same forms, which the program's log discards.
  virtual void WriteDebug(const std::string& text) = 0;
  virtual void WriteDebug(const char* text, size_t length) = 0;
  virtual void WriteDebug(const char* text) = 0;
  virtual void WriteDebug(const std::wstring& text) = 0;
  virtual void WriteDebug(const wchar_t* text, size_t length) = 0;
  virtual void WriteDebug(const wchar_t* text) = 0;

  // Sets the listener, which the log doesn't own; null removes it. Before it goes, it is shown the
  // lines that were queued before the call (for two seconds at most, if it is slow), and once the
  // call has returned it isn't used any more.
  virtual void SetSniffer(IDebugLogSniffer* sniffer) = 0;
};
