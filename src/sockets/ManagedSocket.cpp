#include "sockets/ManagedSocket.h"

#include <utility>

namespace Network {

ManagedSocket::ManagedSocket(const std::shared_ptr<SocketHome>& home, const wchar_t* mutexName,
                             platform::Socket socket)
    : home_(home), event_(home->GetEvent()), sockMutex_(mutexName), socket_(std::move(socket)) {}

void ManagedSocket::CloseHandle() {
  ScopedLock lock(sockMutex_);
  socket_.Close();
}

// Two steps, as the turn that runs needs the socket's lock to come to its end. A turn looks at the
// handle under both locks, so none begins between the steps.
void ManagedSocket::CloseAndWait() {
  CloseHandle();
  std::lock_guard delivery(deliveryMutex_);
}

bool ManagedSocket::Passed(const platform::SocketResult& result, const wchar_t* failure,
                           ErrInfo* err) {
  if (result.Ok()) return true;
  CloseHandle();
  err->SetCode(result.error, failure);
  return false;
}

}  // namespace Network
