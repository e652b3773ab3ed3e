// One IPv4 socket of the system, datagram or stream, that never blocks its user (but for Connect).
//
// No lock: calls on one socket are serialised by its user, but for the two that say otherwise.
#pragma once

#include <cstdint>
#include <memory>

#include "platform/socketaddress.h"
#include "platform/wakeset.h"

namespace platform {

// What a socket call did. A failure carries the operating system's own error number, read at once.
struct SocketResult {
  int64_t count = 0;        // bytes moved
  uint32_t error = 0;       // 0: success
  bool wouldBlock = false;  // failed only for now: nothing to receive, or no room to send

  bool Ok() const { return error == 0; }
};

// What can happen on a watched socket, as bits of one number.
enum SocketEvent : uint32_t {
  kSocketRead = 1,
  kSocketWrite = 2,
  kSocketAccept = 8,
  kSocketConnect = 16,
  kSocketClose = 32,
};

class Socket {
 public:
  Socket();  // closed
  ~Socket();
  Socket(Socket&&) noexcept;  // the source is only good for destruction then
  Socket& operator=(Socket&&) = delete;

  // Any thread, at any time.
  bool IsOpen() const;

  // Open a new socket. What was open is closed first. Not inherited by child processes.
  SocketResult OpenUdp();
  SocketResult OpenTcp();

  // Harmless on a closed socket. Another thread may still get events from the wake set; they
  // are forgotten.
  void Close();

  // Permits sending to broadcast addresses.
  SocketResult SetBroadcast();

  // Asks for room for that many bytes that have arrived and weren't received yet. The system takes
  // it for a hint. On a stream before Connect or Listen.
  SocketResult SetReceiveBuffer(uint32_t bytes);

  // Takes a local address; port 0 takes a free port. A datagram socket fails when the port is taken
  // by another one. A stream socket may take the address of a connection that is over.
  // A datagram socket bound to the address of one interface also hears the broadcasts that arrive
  // there for its port, as far as the system permits it.
  SocketResult Bind(const SocketAddress& local);

  // The address that the socket is bound to, with the port that the system chose.
  SocketResult LocalAddress(SocketAddress* local) const;

  // Blocks until the connection stands or fails.
  SocketResult Connect(const SocketAddress& peer);

  // With the longest queue of waiting connections that the system gives.
  SocketResult Listen();

  // Takes one waiting connection into `connection`, a closed socket.
  SocketResult Accept(Socket* connection);

  // From now on events of the socket, those of SocketEvent that `events` has, wake `wakeSet` and
  // are reported by Pending. Once for each opened socket, after Bind or Connect.
  SocketResult Watch(const std::shared_ptr<WakeSet>& wakeSet, uint32_t events);

  // The events since the latest call; `error` is set when they can't be asked for.
  //
  //  read     something may be there to receive. On a datagram socket it comes again, and wakes
  //           again, as long as a datagram waits and a RecvFrom followed the report; on a stream
  //           once, then again when data comes after a Recv answered would-block.
  //  write    sending is possible: once at first, then again after a Send answered would-block.
  //  accept   a connection may be waiting. Comes again after each Accept that succeeded; wakes only
  //           once as long as nobody accepts.
  //  connect  Connect has succeeded: once, and never on an accepted socket.
  //  close    the peer has closed and all its data was received, or the connection broke.
  //
  // All but `close` may be reported in vain: the call then answers would-block.
  struct Events {
    uint32_t events = 0;
    uint32_t error = 0;
  };
  Events Pending();

  // False: Pending would report nothing. Any thread, without a system call.
  bool MayHavePending() const;

  // One datagram. A full send buffer is a failure with wouldBlock set.
  SocketResult SendTo(const void* data, size_t size, const SocketAddress& to);

  // One datagram into `data` of `capacity` bytes. A datagram that doesn't fit is lost and makes the
  // system's message-size failure, never a cut datagram.
  SocketResult RecvFrom(void* data, size_t capacity, SocketAddress* from);

  // On a stream: takes all bytes, or answers would-block. After would-block the system may have
  // taken a part: SendUnfinished says so. The next Send must then bring the same bytes again; it
  // goes on after that part, so nothing is lost, doubled or torn.
  SocketResult Send(const void* data, size_t size);
  bool SendUnfinished() const;

  // On a stream: what is there, `capacity` bytes at most; a count of 0 is the end of the stream.
  SocketResult Recv(void* data, size_t capacity);

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace platform
