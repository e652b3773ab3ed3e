// Any text as an address: both readers against each other, and the text of what they took in.
#include "Harness.h"
#include "sockets/NetAddr.h"

using fuzz::Require;
using Network::NetAddr;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 2) return 0;
  fuzz::Input input(data, size);
  const uint16_t port = input.U16();
  std::wstring text;
  while (input.Left() > 0)
    text += static_cast<wchar_t>(input.U8());

  NetAddr addr;
  addr.SetFromText(L"1.2.3.4:5");  // what it held before must not show
  const bool taken = addr.SetFromText(text);
  Require(taken == addr.IsDefined(), "the result says whether it is defined");
  // All ones are read with their port, and are undefined all the same.
  const bool allOnes = text.starts_with(L"255.255.255.255:");
  Require(taken || allOnes || addr == NetAddr(), "a refused text leaves nothing behind");

  NetAddr again;
  Require(again.SetFromText(addr.ToText()) == taken, "its text is taken in as it was");
  Require(again == addr, "its text is the same address");

  NetAddr withPort;
  const bool takenWithPort = withPort.SetFromTextAndPort(text, 0x10000u + port);
  Require(takenWithPort == withPort.IsDefined(), "the result says whether it is defined");
  Require(takenWithPort || !taken, "whoever asks less takes more");
  Require(!takenWithPort || withPort.Port() == port, "the given port is taken, cut to 16 bits");
  if (taken) {
    NetAddr moved;
    moved.SetFromTextAndPort(addr.ToText(), addr.Port());
    Require(moved == addr, "the text after the address plays no part");
  }
  return 0;
}
