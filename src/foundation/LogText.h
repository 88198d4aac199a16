// Texts of others, made fit for a line: of the log, or of a datagram.
#pragma once

#include "foundation/StdString.h"

#include <cstddef>
#include <string_view>

namespace kel {

// The most bytes that one byte of a text becomes.
constexpr size_t printableGrowth = 4;

// Whether there are control characters in the text: C0, DEL, and C1 in UTF-8.
bool HasControls(std::string_view text);

// Writes the text, with "\n", "\r", "\t" or the like of "\x1b" in place of each control character, and returns the
// position behind it. There is room for printableGrowth times its size. Safe in a signal handler.
char* WritePrintable(char* to, std::string_view text);

void AppendPrintable(CStdStr& line, std::string_view text);

}  // namespace kel
