// The control protocol's transport as its users see it: single datagrams (IJsonUdpManager) and the
// acknowledged connection on top (IJsonUdpConnect).
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "runtime/ErrInfo.h"
#include "sockets/NetAddr.h"

namespace Network {

class INetManager;
class IJsonUdpManager;
struct JsonMsg;

// What a manager or connection reports to. The first argument distinguishes the sources. A
// manager calls on the NetManager's worker, where nothing may block; a connection calls on one of
// the few threads that connections share, one call at a time, but for the OnError of its socket.
// Not owned: stop the source before the receiver dies.
class IJsonUdpReceiver {
 public:
  // A manager: the message went out. A connection: the peer has acknowledged all of it.
  virtual void OnMsgSent(IJsonUdpManager* manager, const std::shared_ptr<JsonMsg>& msg) = 0;
  virtual void OnMsgReceived(IJsonUdpManager* manager, const std::shared_ptr<JsonMsg>& msg,
                             const NetAddr& from) = 0;
  virtual void OnError(IJsonUdpManager* manager, ErrInfo err) = 0;

 protected:
  ~IJsonUdpReceiver() = default;
};

// A veto on sending.
class IJsonUdpSendFilter {
 public:
  virtual bool MaySend(IJsonUdpManager* manager, const std::shared_ptr<JsonMsg>& msg) = 0;

 protected:
  ~IJsonUdpSendFilter() = default;
};

struct JsonUdpInfo {
  IJsonUdpReceiver* Receiver = nullptr;
  IJsonUdpSendFilter* SendFilter = nullptr;
  NetAddr SendAddr;  // default destination
  NetAddr BindAddr;  // undefined: the socket hears nothing
  bool Broadcast = false;
  uint32_t MaxPacketSize = 1432;  // bytes; a datagram is at most one byte shorter
};

class IJsonUdpManager {
 public:
  virtual ~IJsonUdpManager() = default;

  virtual ErrInfo Init(const JsonUdpInfo& info) = 0;  // stops what runs
  virtual ErrInfo Start() = 0;                        // opens the socket
  virtual void Stop() = 0;  // when it returns, no call of the receiver runs or can start
  virtual bool IsStarted() = 0;
  virtual ErrInfo SetDefaultSendAddr(const NetAddr& addr) = 0;

  // One datagram, one try: to `to` if that is defined, else to the default destination.
  virtual ErrInfo SendDirect(const std::shared_ptr<JsonMsg>& msg, const NetAddr& to) = 0;

  // `name` stands in the log lines. The caller owns the object. `netManager` lives at every call
  // but the destructor.
  static IJsonUdpManager* Create(const std::wstring& name, INetManager* netManager);
};

class IJsonUdpConnect : public IJsonUdpManager {
 public:
  // Queues a message, which is then repeated until the peer acknowledges it or five transmissions
  // are over. Never waits. Takes the message over: its attachment is cut into segments when it is
  // longer than one datagram. Destinations that acknowledge are served first. Fails, and leaves the
  // attachment, when 256 datagrams wait for `to` already, or 4,096 in all; and for the second limit
  // messages to destinations that acknowledge less well make room first.
  virtual ErrInfo Send(const std::shared_ptr<JsonMsg>& msg, const NetAddr& to) = 0;

  static IJsonUdpConnect* Create(const std::wstring& name, INetManager* netManager);
};

}  // namespace Network
