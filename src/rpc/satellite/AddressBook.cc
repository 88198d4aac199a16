#include "rpc/satellite/AddressBook.h"

#include "foundation/StdString.h"
#include "rpc/transport/Quietly.h"
#include "rpc/values/KelResult.h"
#include "rpc/values/VUtil.h"

namespace kel {

using transport::Address;
using transport::Deadline;
using transport::Outbound;
using transport::Outcome;
using transport::Quietly;

namespace {

constexpr const char* askMethod = "GetSatelliteHost";
constexpr size_t maxKnown = 100'000;

}  // namespace

AddressBook::AddressBook(Outbound& outbound, Address directory, std::string self)
    : outbound_(outbound), self_(std::move(self)), directory_(std::move(directory)) {}

Address AddressBook::directory() {
    PMutexHold hold(lock_);
    return directory_;
}

void AddressBook::MoveTo(const Address& directory) {
    PMutexHold hold(lock_);
    directory_ = directory;
    known_.clear();
}

std::optional<Address> AddressBook::Remembered(const std::string& satellite) {
    PMutexHold hold(lock_);
    if (ssicmp(satellite.c_str(), directoryName) == 0) return directory_;
    const auto found = known_.find(satellite);
    if (found == known_.end()) return std::nullopt;
    return found->second;
}

AddressBook::Entry AddressBook::Ask(const std::string& satellite, Deadline deadline) {
    const Address from = directory();
    Outcome outcome = outbound_.Call(from, askMethod, self_, MakeString(satellite.c_str()), deadline);
    return Learn(satellite, from, outcome);
}

void AddressBook::AskAsync(const std::string& satellite, Handler handler) {
    const Address from = directory();
    outbound_.CallAsync(from, askMethod, self_, MakeString(satellite.c_str()), callTimeout,
                        [this, satellite, from, handler = std::move(handler)](Outcome& outcome) {
                            Entry entry;
                            if (!Quietly([&] { entry = Learn(satellite, from, outcome); }))
                                entry = {std::nullopt, KEL_UNREACHABLE, "no memory"};
                            handler(std::move(entry));
                        });
}

AddressBook::Entry AddressBook::Learn(const std::string& satellite, const Address& from, Outcome& outcome) {
    Entry entry;
    if (outcome.end != Outcome::End::answered) {
        entry.code = outcome.end == Outcome::End::noAnswer ? KEL_NO_ANSWER : KEL_UNREACHABLE;
        entry.problem = "the directory does not say where " + satellite + " is: " + outcome.problem;
        return entry;
    }
    if (outcome.message.code != 0) {
        entry.code = outcome.message.code;
        entry.problem = "the directory at " + from.text() + " knows no satellite " + satellite;
        return entry;
    }
    try {
        Address address{VUtil::GetStringElement(outcome.message.value, 0),
                        static_cast<uint16_t>(VUtil::GetIntElement(outcome.message.value, 1))};
        PMutexHold hold(lock_);
        if (known_.size() >= maxKnown)
            known_.clear();  // satellites come and go; those that are left are asked for again
        if (from == directory_) known_.insert_or_assign(satellite, address);
        entry.address = std::move(address);
    } catch (const KelException& error) {
        entry.code = KEL_UNREACHABLE;
        entry.problem = "the directory's answer for " + satellite + " has another form: " + error.GetMessage();
    }
    return entry;
}

void AddressBook::Forget(const std::string& satellite, const Address& address) {
    PMutexHold hold(lock_);
    const auto found = known_.find(satellite);
    if (found != known_.end() && found->second == address) known_.erase(found);
}

void AddressBook::Forget(const std::string& satellite) {
    PMutexHold hold(lock_);
    known_.erase(satellite);
}

}  // namespace kel
