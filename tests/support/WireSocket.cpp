#include "support/WireSocket.h"

#include "support/System.h"

namespace wire {

std::string OwnAddress() {
  return ::OwnAddress();
}

}  // namespace wire
