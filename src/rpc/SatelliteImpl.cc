#include "rpc/SatelliteImpl.h"

#include "foundation/Settings.h"
#include "rpc/FindDirectory.h"
#include "rpc/LibraryLog.h"
#include "rpc/RunningCall.h"
#include "rpc/VUtil.h"
#include "rpc/transport/Quietly.h"

#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <functional>
#include <utility>

using namespace kel::transport;
using kel::foundTimeout;
using kel::IsDirectoryName;
using kel::shortTimeout;
using kel::settings::BindAddress;
using kel::settings::DirectoryPort;
namespace wire = kel::wire;

namespace {

constexpr std::chrono::seconds standingPeriod{10};
constexpr long registrationGraceMs = 2000;
constexpr size_t maxProblems = 1000;  // characters

constexpr const char* availabilityMethod = "OnServiceAvailabilityChanged";

// What is wrong with the settings, unless that was the last this said of them. The directory says it at its start.
void SayWhatIsWrongWithSettings() {
    static PLocker<CStdStr> said;
    const std::vector<kel::settings::Finding> findings = kel::settings::Check();
    CStdStr text;
    for (const auto& finding : findings) text.append(finding.Text()).append("\n");
    {
        PMutexHold hold(said);
        if (std::exchange(said.value(), text) == text) return;
    }
    for (const auto& finding : findings) {
        CBBLog::error(LibraryLogger(), "libkel: settings: %s", finding.Text().c_str());
    }
}

// What to do about a port that cannot be listened on.
const char* Advice(const boost::system::error_code& error) {
    if (error == boost::asio::error::address_in_use) {
        return "end the program that holds the port (as root, ss -ltnp names it), or set kel.directoryPort";
    }
    if (error == boost::asio::error::access_denied) {
        return "ports below 1024 take root or CAP_NET_BIND_SERVICE; start it with that, or set kel.directoryPort";
    }
    if (error == boost::system::errc::address_not_available) {
        return "no interface of this machine has that address; mend kel.bindAddress";
    }
    return "see what the system is short of";
}

// "host", "host:port" or nothing.
Address ParseDirectory(const char* host) {
    std::string text = host && *host ? host : "127.0.0.1";
    const size_t colon = text.rfind(':');
    if (colon == std::string::npos) return {text, DirectoryPort()};
    char* end = nullptr;
    const long port = std::strtol(text.c_str() + colon + 1, &end, 10);
    if (*end != '\0' || port <= 0 || port > 65535) {
        CStdStr message;
        message.Format("Connect: \"%s\" is not a host with an optional :port", text.c_str());
        throw KelInvalidParameterException(message.c_str());
    }
    return {text.substr(0, colon), static_cast<uint16_t>(port)};
}

}  // namespace

KelSatellite::Impl::Impl(KelSatellite& satellite) : satellite_(satellite) {}

KelSatellite::Impl::~Impl() { Disconnect(); }

KelSatellite::Impl::LinkPtr KelSatellite::Impl::link() {
    PMutexHold hold(lock_);
    return link_;
}

CStdStr KelSatellite::Impl::LastProblem() {
    PMutexHold hold(problem_);
    return problem_.value();
}

// Says nothing without memory for it.
void KelSatellite::Impl::KeepProblem(const std::string& problem) {
    CStdStr kept;
    if (!Quietly([&] { kept = problem; })) return;
    PMutexHold hold(problem_);
    problem_.value().swap(kept);
}

unsigned short KelSatellite::Impl::port() {
    const LinkPtr current = link();
    return current ? current->endpoint.port() : 0;
}

// --- Connecting and leaving ----------------------------------------------------------------------------------------

int KelSatellite::Impl::Connect(const char* host, const char* name) {
    if (!name || !*name) throw KelInvalidParameterException("Connect: a satellite needs a name");
    const std::optional<Address> directory = DirectoryOn(host, name);
    return directory ? ConnectAs(*directory) : KEL_UNREACHABLE;
}

// Where the directory on `host` listens, if it can be told. This satellite is `name`, and not connected, from here on.
std::optional<Address> KelSatellite::Impl::DirectoryOn(const char* host, const CStdStr& name) {
    std::optional<Address> directory;
    if (!IsDirectoryName(name)) SayWhatIsWrongWithSettings();
    if (!kel::IsAuto(host)) directory = ParseDirectory(host);
    Disconnect();
    KeepProblem("");
    name_ = name;
    own_.reset();
    if (directory) return directory;

    own_ = Address{"127.0.0.1", DirectoryPort()};
    const auto asking = std::make_shared<Link>(*this, Address(), name_);
    asking->endpoint.Start();
    std::string problems;
    const auto answers = [&](const Address& address) {
        std::string problem;
        const bool isDirectory = IsDirectoryAt(*asking, address, foundTimeout, &problem);
        if (problems.size() < maxProblems) problems += (problems.empty() ? ": " : "; ") + problem;
        return isDirectory;
    };
    directory = kel::FindDirectory({*own_, answers});
    asking->endpoint.Close();
    if (!directory) KeepProblem("no directory answers" + problems);
    return directory;
}

int KelSatellite::Impl::ConnectAs(const Address& directory) {
    const bool isDirectory = IsDirectoryName(name_);
    Address at = directory;
    const std::string bindAddress = BindAddress();
    if (isDirectory && bindAddress != "0.0.0.0") at.host = bindAddress;  // it reaches itself where it listens

    const auto made = std::make_shared<Link>(*this, at, name_);
    made->listens = true;
    made->endpoint.Start();
    {
        PMutexHold hold(lock_);
        link_ = made;
    }
    try {
        int code = Open(*made, isDirectory);
        if (code == KEL_OK) {
            satellite_.CreateServices();
            made->endpoint.Accept();
            code = Register();
        }
        if (code != KEL_OK) {
            Drop(made);
            return code == KEL_NAME_TAKEN ? KEL_ALREADY_REGISTERED : code == KEL_NO_ANSWER ? KEL_UNREACHABLE : code;
        }
    } catch (...) {
        Drop(made);
        throw;
    }
    made->endpoint.Repeat(standingPeriod, [this] {
        CheckStanding();
        LookAround();
    });
    return KEL_OK;
}

int KelSatellite::Impl::ConnectUser(const char* host, const char* user) {
    const std::optional<Address> directory = DirectoryOn(host, user);
    if (!directory) return KEL_UNREACHABLE;
    const auto made = std::make_shared<Link>(*this, *directory, name_);
    made->endpoint.Start();
    std::string problem;
    if (!IsDirectoryAt(*made, *directory, shortTimeout, &problem)) {
        KeepProblem(problem);
        made->endpoint.Close();
        return KEL_UNREACHABLE;
    }
    {
        PMutexHold hold(lock_);
        link_ = made;
    }
    if (own_) made->endpoint.Repeat(standingPeriod, [this] { LookAround(); });
    return KEL_OK;
}

// Opens the listening port: the directory's own, or a free one.
int KelSatellite::Impl::Open(Link& link, bool isDirectory) {
    const std::string bindAddress = BindAddress();
    const Address at{bindAddress, isDirectory ? link.addresses.directory().port : uint16_t{0}};
    const boost::system::error_code error = link.endpoint.Listen(at);
    if (!error) return KEL_OK;
    if (isDirectory && error == boost::asio::error::address_in_use &&
        IsDirectoryAt(link, link.addresses.directory(), shortTimeout)) {
        KeepProblem("a directory answers at " + link.addresses.directory().text() + " already");
        return KEL_ALREADY_REGISTERED;
    }
    KeepProblem("cannot listen on " + at.text() + ": " + error.message() + "; " + Advice(error));
    CBBLog::error(LibraryLogger(), "libkel: %s cannot listen on %s: %s; %s", name_.c_str(), at.text().c_str(),
                  error.message().c_str(), Advice(error));
    return KEL_PORT_IN_USE;
}

// Whether the endpoint at `address` publishes what a directory publishes; `problem`, if wanted, is why not.
bool KelSatellite::Impl::IsDirectoryAt(Link& link, const Address& address, std::chrono::milliseconds timeout,
                                       std::string* problem) {
    const ScopedVariant nothing;
    const Outcome outcome = link.endpoint.outbound().Call(address, "kel.Describe", link.self, nothing,
                                                          std::chrono::steady_clock::now() + timeout);
    const bool isEndpoint = outcome.end == Outcome::End::answered || outcome.end == Outcome::End::failed;
    if (problem) *problem = isEndpoint ? address.text() + kel::noDirectory : outcome.problem;
    if (outcome.end != Outcome::End::answered) return false;
    try {
        const int count = VUtil::GetArrayLengthEmpty(outcome.message.value);
        for (int i = 0; i < count; ++i) {
            ScopedVariant method;
            VUtil::GetElement(outcome.message.value, i, method);
            if (VUtil::GetStringElement(method, 0) == "Register") return true;
        }
    } catch (const KelException&) {
    }
    return false;
}

void KelSatellite::Impl::Disconnect() {
    const LinkPtr current = link();
    if (!current) return;
    if (current->endpoint.OnWorker()) {
        CBBLog::error(LibraryLogger(), "libkel: Disconnect called from inside a method of %s; ignored", name_.c_str());
        return;
    }
    const bool wasRegistered = EndStanding();
    if (wasRegistered && !IsDirectoryName(name_)) {
        CallAt(*current, current->addresses.directory(), "RemoveSatellite", Record(*current, {}), shortTimeout);
    }
    Drop(current);
}

void KelSatellite::Impl::Drop(const LinkPtr& dropped) {
    EndStanding();
    dropped->news.Stop();
    dropped->standings.Stop();
    dropped->endpoint.Quiesce();
    dropped->endpoint.Close();
    {
        PMutexHold hold(standing_);
        leaving_ = reportedGone_ = directoryMissing_ = settlingFailed_ = false;
        satId_ = 0;
        due_ = {};
        knownOver_.reset();
    }
    PMutexHold hold(lock_);
    link_.reset();
}

// --- Publishing ----------------------------------------------------------------------------------------------------

int KelSatellite::Impl::AddService(const char* name, const char* description, KelSatelliteDelegateGeneric* delegate) {
    std::unique_ptr<KelSatelliteDelegateGeneric> owned(delegate);
    if (!name || !*name) throw KelInvalidParameterException("AddService: a service needs a name");
    if (!owned) throw KelInvalidParameterException("AddService: a service needs a delegate");
    const auto method = std::make_shared<const kel::Method>(name, description, std::move(owned));
    methods_.Put(method);
    const LinkPtr current = link();
    return current ? TellOfService(*current, method->name) : KEL_OK;
}

int KelSatellite::Impl::RemoveService(const char* name) {
    if (!name) return KEL_UNKNOWN_METHOD;
    if (!methods_.Remove(name)) {
        PMutexHold hold(standing_);
        if (due_.services.count(name) == 0) return KEL_UNKNOWN_METHOD;  // else the directory has yet to hear of it
    }
    const LinkPtr current = link();
    return current ? TellOfService(*current, name) : KEL_OK;
}

void KelSatellite::Impl::OnCall(const ConnectionPtr& connection, wire::Message& call) {
    const auto method = [&](ScopedVariant& out) { return RunMethod(connection, call, out); };
    kel::RunningCall(connection, call).Run(std::cref(method));
}

int KelSatellite::Impl::RunMethod(const ConnectionPtr& connection, const wire::Message& call, ScopedVariant& out) {
    if (call.method == "kel.Ping") {
        out = AnswerPing(call.value);
        return KEL_OK;
    }
    if (call.method == "kel.Describe") {
        out = AnswerDescribe();
        return KEL_OK;
    }
    int result = 0;
    const int code = satellite_.OnServiceRequested(connection->descriptor(), call.caller.c_str(), call.method.c_str(),
                                                   call.value, &out, &result);
    if (code == KEL_OK) return result;
    if (code == KEL_UNKNOWN_METHOD && call.method == availabilityMethod) return TellAvailability(call.value);
    CStdStr text;
    text.Format(code == KEL_UNKNOWN_METHOD ? "unknown method %s" : "%s was refused", call.method.c_str());
    throw KelException(text.c_str(), code);
}

// The directory's news of a service becomes the virtual call, unless the satellite publishes the method itself.
int KelSatellite::Impl::TellAvailability(const tagVARIANT& in) {
    VUtil::CheckArrayType(in, VT_VARIANT, 3, availabilityMethod);
    const CStdStr service = VUtil::GetStringElement(in, 0);
    const CStdStr provider = VUtil::GetStringElement(in, 1);
    const int status = VUtil::GetIntElement(in, 2);
    if (const LinkPtr current = link()) {
        const auto tell = [this, service, provider, status] {
            satellite_.OnServiceAvailabilityChanged(service.c_str(), provider.c_str(), status);
        };
        current->news.Append(tell, sizeof tell + service.size() + provider.size());
    }
    return KEL_OK;
}

ScopedVariant KelSatellite::Impl::AnswerPing(const tagVARIANT& in) {
    VUtil::CheckArrayType(in, VT_VARIANT, 2, "kel.Ping");
    const CStdStr name = VUtil::GetStringElement(in, 0);
    const int satId = VUtil::GetIntElement(in, 1);
    return MakeInt(ssicmp(name.c_str(), name_.c_str()) == 0 && IsOwnId(satId) ? 1 : 0);
}

// The directory may ask for the id that it has just given before its answer with the id has been read here, so while it
// is being told something the question waits a little. The directory's own registration is not waited for: it asks
// itself from inside it whether the record that an earlier run left behind is alive.
bool KelSatellite::Impl::IsOwnId(int satId) {
    const timespec deadline = DeadlineIn(registrationGraceMs);
    PMutexHold hold(standing_);
    while (turnTaken_ && satId != satId_ && !IsDirectoryName(name_) && standing_.waitUntil(deadline)) {
    }
    return satId == satId_;
}

ScopedVariant KelSatellite::Impl::AnswerDescribe() const {
    return VUtil::MakeListOf(
        methods_.All(), [](const kel::Service& method) { return VUtil::MakeList(method.name, method.description); });
}
