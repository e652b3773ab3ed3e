// The page of the command "web", compiled in.
#pragma once

#include <string_view>

namespace ctl {

// HTML in UTF-8. Each NONCE in it is to be replaced by the one of the answer's
// Content-Security-Policy.
std::string_view WebPage();

}  // namespace ctl
