// The platform's socket addresses as this far end has them, and back. Plain functions.
#pragma once

#include "platform/socketaddress.h"
#include "wire/Endpoint.h"

namespace wire {

platform::SocketAddress ToPlatform(const Endpoint& endpoint);

// All-ones, which stands for "none" in the platform's lists, stays all-ones.
Endpoint ToEndpoint(const platform::SocketAddress& address);

}  // namespace wire
