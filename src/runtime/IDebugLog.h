// The program's one log as its users see it.
#pragma once

#include <cstddef>
#include <string>

// Listens to the log. Called on the log's writer thread, one line at a time and one call at a time.
class IDebugLogSniffer {
 public:
  // `line` is the complete formatted line, with its line end (carriage return, line feed).
  virtual void Sniff(const std::wstring& line) = 0;

  // No line is waiting for now: a listener that gathers lines to show them together shows them.
  virtual void OnQueueEmpty() {}

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
