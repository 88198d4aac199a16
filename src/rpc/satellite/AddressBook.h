// Where the other satellites listen, as the directory says.
#pragma once

#include "foundation/StdString.h"
#include "rpc/transport/Outbound.h"

#include <map>
#include <optional>
#include <string>

namespace kel {

constexpr std::chrono::seconds callTimeout{30};
constexpr const char* directoryName = "MainRegister";

// Asks the directory for a satellite's address and remembers it until a call to it fails. Any thread.
class AddressBook {
public:
    // `self` is the caller's name that the directory sees.
    AddressBook(transport::Outbound& outbound, transport::Address directory, std::string self);

    transport::Address directory();
    // Another one is asked from now on; what the one before said of satellites is forgotten.
    void MoveTo(const transport::Address& directory);

    struct Entry {
        std::optional<transport::Address> address;
        int code = 0;         // without an address: the directory's answer, or KEL_UNREACHABLE, KEL_NO_ANSWER
        std::string problem;  // for people
    };
    using Handler = std::function<void(Entry entry)>;

    // The remembered address; the directory's own is always known.
    std::optional<transport::Address> Remembered(const std::string& satellite);
    // Asks, waits and remembers.
    Entry Ask(const std::string& satellite, transport::Deadline deadline);
    // Asks without waiting. The handler is called exactly once, unless this throws.
    void AskAsync(const std::string& satellite, Handler handler);
    // A call to `address` failed.
    void Forget(const std::string& satellite, const transport::Address& address);
    // It may have moved.
    void Forget(const std::string& satellite);

private:
    Entry Learn(const std::string& satellite, const transport::Address& from, transport::Outcome& outcome);

    transport::Outbound& outbound_;
    const std::string self_;

    PMutex lock_;
    transport::Address directory_ KEL_GUARDED_BY(lock_);
    std::map<CStdStr, transport::Address, CaseInsensitiveLess> known_ KEL_GUARDED_BY(lock_);
};

}  // namespace kel
