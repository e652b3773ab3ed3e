// What the processor can do beyond what every one of its kind can.
#pragma once

namespace platform {

// The SSSE3 instructions of an x86-64 processor; false on any other. Any thread.
bool HasSsse3();

}  // namespace platform
