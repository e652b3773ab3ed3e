// What is drawn on the page of a certificate, as SVG to stand in it: the seal, and how each stream
// arrived. The colours are those of the page's style sheet.
#pragma once

#include <cstddef>
#include <string>

#include "Certificate.h"

namespace ctl {

// The class that the style sheet knows a verdict by.
const char* ClassOf(Verdict verdict);

// "1 packet", "2 packets".
std::string Counted(size_t count, const char* one, const char* many);

std::string Seal(const Certificate& certificate);

// Two plots an input, of the round in which it had the most jitter. Empty where none was heard.
std::string Plots(const CheckedUnit& checked);

}  // namespace ctl
