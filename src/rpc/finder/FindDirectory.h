// What the host name "auto" stands for.
#pragma once

#include "rpc/transport/Sockets.h"

#include <cstdint>
#include <functional>
#include <optional>

namespace kel {

// Whether `host` asks for the directory to be found.
bool IsAuto(const char* host);

struct DirectorySearch {
    transport::Address own;                                  // where this machine's directory listens
    std::function<bool(const transport::Address&)> answers;  // whether a directory answers there, within a few seconds
    std::function<bool()> isWanted = [] { return true; };    // the search ends early when it is not
    bool isFirst = true;                                     // otherwise that there is none is no news
};

// The directory of this machine, if it answers; else the first of those found on the networks, at the first of its
// addresses that answers. Nothing when none was found within six seconds, or none of those found answered within 15.
std::optional<transport::Address> FindDirectory(const DirectorySearch& wanted);

}  // namespace kel
