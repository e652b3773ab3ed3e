// Texts that came from the network, made fit for a terminal: whoever names a unit may have put
// anything into its name.
#pragma once

#include <string>
#include <string_view>

namespace ctl {

// UTF-8 in, UTF-8 out. What would move the cursor, change colours or turn the reading direction
// becomes an escape, and so does what isn't UTF-8: "\x1B" a control character (C0, DEL, C1) or a
// byte, "\u202E" a mark of direction or a line separator.
std::string Printable(std::string_view text);

// The same, cut to the 32 columns that one cell of a table may take.
std::string PrintableCell(std::string_view text);

}  // namespace ctl
