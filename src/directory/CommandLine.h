// What the program KelDirectory does in place of a start when it is asked to: --version, --help, --check.
#pragma once

#include "foundation/StdString.h"

#include <optional>
#include <vector>

// Answers the first of the three that stands among the arguments, on standard output, and returns the status to exit
// with; nothing when there is none. Starts no thread, opens no log and changes nothing.
std::optional<int> AnswerCommandLine(const std::vector<CStdStr>& args);
