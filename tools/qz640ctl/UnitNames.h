// The names of the units that answer, quickly enough for a shell that completes a word.
#pragma once

#include <string>
#include <vector>

#include "Session.h"

namespace ctl {

// Asks for 300 ms, and remembers what came for 10 s. Names with control characters are left out: a
// shell would take a line break for the end of the name.
std::vector<std::string> UnitNames(Session& session);

}  // namespace ctl
