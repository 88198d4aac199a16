// For what needs memory, and must not stop what comes after it when there is none.
#pragma once

namespace kel::transport {

// Runs `code`; false when an exception ended it, which goes no further.
template <typename Code>
bool Quietly(Code&& code) {
    try {
        code();
        return true;
    } catch (...) {
        return false;
    }
}

}  // namespace kel::transport
