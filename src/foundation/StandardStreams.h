// Standard output and standard error for a process that must not wait for who reads them: a pipe that nobody empties, a
// terminal that was stopped.
//
// Text is written whole or not at all. What is not taken at once is dropped and counted, and when text is taken again
// a line says how many are missing. What was taken in part is finished before anything else.
//
// Nothing passes through stdio here. Any thread; the functions throw nothing but std::bad_alloc.
#pragma once

#include "platform/WriteAtOnce.h"

#include <string_view>

namespace kel {

// Print lines, each with its line feed.
void PrintOut(std::string_view lines);
void PrintError(std::string_view lines);

// The write itself, without lock, count or memory, for signal handlers.
using platform::WriteAtOnce;

}  // namespace kel
