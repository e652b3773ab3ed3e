// Control messages on one UDP socket, one message a datagram, without acknowledgement or repeat.
//
// Receives on the worker thread of its NetManager; sends on the thread of its caller, several at a
// time. sockMutex_ guards the socket's pointer alone and is never held across a call of the socket.
#pragma once

#include <mutex>

#include "control/IJsonUdp.h"
#include "runtime/IDebugLog.h"
#include "sockets/INetManager.h"

namespace Network {

class JsonUdpManager final : public IJsonUdpManager, public IUdpReceiver {
 public:
  // An empty name becomes "JsonUdpManager".
  JsonUdpManager(const std::wstring& name, INetManager* netManager);
  ~JsonUdpManager() override;
  JsonUdpManager(const JsonUdpManager&) = delete;
  JsonUdpManager& operator=(const JsonUdpManager&) = delete;

  ErrInfo Init(const JsonUdpInfo& info) override;
  ErrInfo Start() override;
  void Stop() override;
  bool IsStarted() override;

  // Not synchronised with SendDirect: before Start, or when no send can be under way.
  ErrInfo SetDefaultSendAddr(const NetAddr& addr) override;
  ErrInfo SendDirect(const std::shared_ptr<JsonMsg>& msg, const NetAddr& to) override;

  void OnDatagramReceived(IUdpSock* sock, std::shared_ptr<Packet> packet,
                          const NetAddr& from) override;
  void OnError(IUdpSock* sock, ErrInfo err) override;

 private:
  std::shared_ptr<IUdpSock> Sock();
  void LogMsg(const wchar_t* direction, const NetAddr& peer, const JsonMsg& msg,
              const std::wstring& text);

  const std::wstring name_;
  INetManager* const netManager_;
  JsonUdpInfo info_;
  std::mutex sockMutex_;
  std::shared_ptr<IUdpSock> sock_;  // null while stopped
  const std::shared_ptr<IDebugLog> log_;
};

}  // namespace Network
