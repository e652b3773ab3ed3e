#include "audio/IRtp.h"

namespace Network {

namespace {

constexpr char kSourceFile[] = "src\\IRtp";

}  // namespace

ErrInfo RtpManagerInfo::IsValid() const {
  ErrInfo err = ERR_HERE("Network::RtpManagerInfo::IsValid");
  if (SampleFreq == 0) return err.SetText(L"SampleFreq con not be 0");
  if (PacketSmplSize == 0) return err.SetText(L"PacketSmplSize rate con not be 0");
  return err;
}

}  // namespace Network
