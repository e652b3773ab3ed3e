// The controller's side of the control protocol: who is there, and one request at a time to one
// unit. Built on the emulator's own connection classes.
#pragma once

#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "ExitStatus.h"
#include "control/IJsonUdp.h"
#include "control/JsonMsgs.h"
#include "sockets/INetManager.h"

namespace ctl {

constexpr uint16_t kDiscoveryPort = 15001;

// A unit that answered, and where it listens for control messages.
struct Unit {
  Network::NetAddr control;
  std::wstring id;
  std::wstring type;
  uint32_t rtpPort = 0;
  uint32_t inputs = 0;
  uint32_t outputs = 0;

  std::string Id() const;                          // UTF-8
  std::string Type() const;                        // UTF-8
  std::string Control() const;                     // a.b.c.d:port
  Network::NetAddr Output(uint32_t output) const;  // where RTP for that output goes
};

std::string ToText(const Network::NetAddr& addr);

// By address, then by port.
bool IsBefore(const Network::NetAddr& a, const Network::NetAddr& b);

// A UDP socket can be bound there now: another program could still take it.
bool IsPortFree(const std::string& addr, uint32_t port);

// a.b.c.d[:port]; throws Failure (kUsage) for anything else. `defaultPort` where the text has none.
Network::NetAddr ParseAddr(const std::string& text, uint16_t defaultPort);

// Broadcasts "dev_find" and collects the answers.
//
// It acknowledges by itself, without the duplicate filter of a connection: that filter knows one
// latest number, and two freshly started emulators answer with the same one.
class Discovery final : public Network::IJsonUdpReceiver {
 public:
  Discovery();
  ~Discovery();

  // Asks at every address, again until a round of `roundMs` brings no new unit, `timeoutMs` are
  // over or Ctrl-C comes. Sorted by control address; a unit of this machine that hears at all of
  // its addresses, and so answers from several, comes once. Throws Failure when no socket can be
  // had.
  std::vector<Unit> Find(const std::vector<Network::NetAddr>& to, uint32_t timeoutMs,
                         uint32_t roundMs = 300);

  // The discovery port at the broadcast address of every interface.
  static std::vector<Network::NetAddr> AllInterfaces();

  void OnMsgSent(Network::IJsonUdpManager*, const std::shared_ptr<Network::JsonMsg>&) override {}
  void OnMsgReceived(Network::IJsonUdpManager* manager,
                     const std::shared_ptr<Network::JsonMsg>& msg,
                     const Network::NetAddr& from) override;
  void OnError(Network::IJsonUdpManager*, ErrInfo) override {}

 private:
  std::mutex mutex_;
  std::vector<Unit> units_;
  std::unique_ptr<Network::INetManager> net_;
  std::shared_ptr<Network::IJsonUdpManager> manager_;
};

// The control address that UNIT gives on a command line; undefined when it is a unit id.
Network::NetAddr ControlAddr(const std::string& name);

Unit ToUnit(const Network::JsonMsgDevInfo& info, const Network::NetAddr& from);

// Finds the unit that UNIT names on a command line: a unit id, found by discovery at `discoverAt`,
// or address:port, which is asked itself. Throws Failure: nobody answered, or several have the id.
Unit FindUnit(const std::string& name, const std::vector<Network::NetAddr>& discoverAt,
              uint32_t timeoutMs);

// A connection to one unit. Requests are made one at a time, on one thread.
class UnitLink final : public Network::IJsonUdpReceiver {
 public:
  UnitLink(const Network::NetAddr& control, uint32_t timeoutMs);
  ~UnitLink();

  // Sends `request` and waits for the answer of type Answer. Throws Failure: kNoAnswer when the
  // unit doesn't acknowledge or answer in time, kRefused when it answers with "error".
  template <typename Answer>
  std::shared_ptr<Answer> Ask(const std::shared_ptr<Network::JsonMsg>& request) {
    return std::dynamic_pointer_cast<Answer>(Exchange(request, [](const Network::JsonMsg& msg) {
      return dynamic_cast<const Answer*>(&msg) != nullptr;
    }));
  }

  // Sends a request that has no answer and waits for its acknowledgement; Failure as above.
  void Tell(const std::shared_ptr<Network::JsonMsg>& request);

  void OnMsgSent(Network::IJsonUdpManager*, const std::shared_ptr<Network::JsonMsg>& msg) override;
  void OnMsgReceived(Network::IJsonUdpManager*, const std::shared_ptr<Network::JsonMsg>& msg,
                     const Network::NetAddr& from) override;
  void OnError(Network::IJsonUdpManager*, ErrInfo err) override;

 private:
  using Wanted = std::function<bool(const Network::JsonMsg&)>;
  std::shared_ptr<Network::JsonMsg> Exchange(const std::shared_ptr<Network::JsonMsg>& request,
                                             const Wanted& wanted);

  const Network::NetAddr control_;
  const uint32_t timeoutMs_;

  std::mutex mutex_;
  std::condition_variable changed_;
  Wanted wanted_;                             // the answer that the present request waits for
  std::shared_ptr<Network::JsonMsg> answer_;  // it, or a JsonMsgError
  std::shared_ptr<Network::JsonMsg> sent_;    // the latest acknowledged message
  std::wstring error_;                        // the latest failure

  std::unique_ptr<Network::INetManager> net_;
  std::shared_ptr<Network::IJsonUdpConnect> connect_;
};

}  // namespace ctl
