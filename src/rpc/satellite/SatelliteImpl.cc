#include "rpc/satellite/SatelliteImpl.h"

#include "foundation/CheckedSettings.h"
#include "rpc/finder/FindDirectory.h"
#include "rpc/transport/LibraryLog.h"
#include "rpc/values/VUtil.h"

#include <unistd.h>

#include <cstdlib>
#include <utility>

using namespace kel::transport;
using kel::foundTimeout;
using kel::IsDirectoryName;
using kel::Link;
using kel::Session;
using kel::SessionPtr;
using kel::shortTimeout;
using kel::settings::BindAddress;
using kel::settings::DirectoryPort;

namespace {

constexpr std::chrono::seconds standingPeriod{10};
constexpr size_t maxProblems = 1000;  // characters

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

// What `v` holds, if there is one; it is empty then.
ScopedVariant TakeFrom(tagVARIANT* v) {
    if (!v) return {};
    ScopedVariant taken = ScopedVariant::adopt(*v);
    VariantInit(v);
    return taken;
}

}  // namespace

KelSatellite::Impl::Impl(KelSatellite& satellite)
    : satellite_(satellite), answers_(satellite, methods_, name_, current_) {}

KelSatellite::Impl::~Impl() { Disconnect(); }

unsigned short KelSatellite::Impl::port() {
    const SessionPtr session = current_.Get();
    return session ? session->link.endpoint.port() : 0;
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
    problem_.Keep("");
    name_ = name;
    own_.reset();
    if (directory) return directory;

    own_ = Address{"127.0.0.1", DirectoryPort()};
    Link asking(Receiver(), Address(), name_, Link::Role::caller);
    asking.endpoint.Start();
    std::string problems;
    const auto answers = [&](const Address& address) {
        std::string problem;
        const bool isDirectory = asking.IsDirectoryAt(address, foundTimeout, &problem);
        if (problems.size() < maxProblems) problems += (problems.empty() ? ": " : "; ") + problem;
        return isDirectory;
    };
    directory = kel::FindDirectory({*own_, answers});
    asking.endpoint.Close();
    if (!directory) problem_.Keep("no directory answers" + problems);
    return directory;
}

kel::transport::Endpoint::Receiver KelSatellite::Impl::Receiver() {
    return [this](Connection& connection, kel::wire::Message& call) { answers_.OnCall(connection, call); };
}

SessionPtr KelSatellite::Impl::MakeSession(const Address& directory, Link::Role role) {
    const auto changed = [this](int satId, KELSTATUS status) { satellite_.OnStatusChange(satId, status); };
    return std::make_shared<Session>(Receiver(), directory, name_, role, methods_, subscriptions_, problem_, changed,
                                     own_);
}

int KelSatellite::Impl::ConnectAs(const Address& directory) {
    const bool isDirectory = IsDirectoryName(name_);
    Address at = directory;
    const std::string bindAddress = BindAddress();
    if (isDirectory && bindAddress != "0.0.0.0") at.host = bindAddress;  // it reaches itself where it listens

    const SessionPtr made = MakeSession(at, Link::Role::satellite);
    made->link.endpoint.Start();
    current_.Set(made);
    try {
        int code = Open(made->link, isDirectory);
        if (code == KEL_OK) {
            satellite_.CreateServices();
            made->link.endpoint.Accept();
            code = made->standing.Register();
        }
        if (code != KEL_OK) {
            Drop(*made);
            return code == KEL_NAME_TAKEN ? KEL_ALREADY_REGISTERED : code == KEL_NO_ANSWER ? KEL_UNREACHABLE : code;
        }
    } catch (...) {
        Drop(*made);
        throw;
    }
    made->link.endpoint.Repeat(standingPeriod, [session = made.get()] { session->LookAfter(); });
    return KEL_OK;
}

int KelSatellite::Impl::ConnectUser(const char* host, const char* user) {
    const std::optional<Address> directory = DirectoryOn(host, user);
    if (!directory) return KEL_UNREACHABLE;
    const SessionPtr made = MakeSession(*directory, Link::Role::caller);
    made->link.endpoint.Start();
    std::string problem;
    if (!made->link.IsDirectoryAt(*directory, shortTimeout, &problem)) {
        problem_.Keep(problem);
        made->link.endpoint.Close();
        return KEL_UNREACHABLE;
    }
    current_.Set(made);
    if (own_) made->link.endpoint.Repeat(standingPeriod, [session = made.get()] { session->LookAfter(); });
    return KEL_OK;
}

// Opens the listening port: the directory's own, or a free one.
int KelSatellite::Impl::Open(Link& link, bool isDirectory) {
    const std::string bindAddress = BindAddress();
    const Address at{bindAddress, isDirectory ? link.addresses.directory().port : uint16_t{0}};
    const boost::system::error_code error = link.endpoint.Listen(at);
    if (!error) return KEL_OK;
    if (isDirectory && error == boost::asio::error::address_in_use &&
        link.IsDirectoryAt(link.addresses.directory(), shortTimeout)) {
        problem_.Keep("a directory answers at " + link.addresses.directory().text() + " already");
        return KEL_ALREADY_REGISTERED;
    }
    problem_.Keep("cannot listen on " + at.text() + ": " + error.message() + "; " + Advice(error));
    CBBLog::error(LibraryLogger(), "libkel: %s cannot listen on %s: %s; %s", name_.c_str(), at.text().c_str(),
                  error.message().c_str(), Advice(error));
    return KEL_PORT_IN_USE;
}

void KelSatellite::Impl::Disconnect() {
    const SessionPtr session = current_.Get();
    if (!session) return;
    if (session->link.endpoint.OnWorker()) {
        CBBLog::error(LibraryLogger(), "libkel: Disconnect called from inside a method of %s; ignored", name_.c_str());
        return;
    }
    session->standing.Leave();
    Drop(*session);
}

void KelSatellite::Impl::Drop(Session& session) {
    session.standing.End();
    session.link.news.Stop();
    session.link.standings.Stop();
    session.link.oneWay.AwaitBeginnings(std::chrono::steady_clock::now() + shortTimeout);
    session.link.endpoint.Quiesce();
    session.link.endpoint.Close();
    current_.Set(nullptr);
}

// --- Publishing ----------------------------------------------------------------------------------------------------

int KelSatellite::Impl::Register() {
    const SessionPtr session = current_.Get();
    return session ? session->standing.Register() : KEL_NOT_CONNECTED;
}

int KelSatellite::Impl::Unregister(bool leave) {
    const SessionPtr session = current_.Get();
    return session ? session->standing.Unregister(leave) : KEL_NOT_CONNECTED;
}

int KelSatellite::Impl::GetSatelliteId(int* id) {
    const SessionPtr session = current_.Get();
    return session ? session->standing.GetSatelliteId(id) : KEL_NOT_CONNECTED;
}

int KelSatellite::Impl::AddService(const char* name, const char* description, KelSatelliteDelegateGeneric* delegate) {
    std::unique_ptr<KelSatelliteDelegateGeneric> owned(delegate);
    if (!name || !*name) throw KelInvalidParameterException("AddService: a service needs a name");
    if (!owned) throw KelInvalidParameterException("AddService: a service needs a delegate");
    const auto method = std::make_shared<const kel::Method>(name, description, std::move(owned));
    methods_.Put(method);
    const SessionPtr session = current_.Get();
    return session ? session->standing.TellOfService(method->name) : KEL_OK;
}

int KelSatellite::Impl::RemoveService(const char* name) {
    if (!name) return KEL_UNKNOWN_METHOD;
    const bool wasThere = methods_.Remove(name);
    const SessionPtr session = current_.Get();
    if (!wasThere && !(session && session->standing.IsDue(name))) return KEL_UNKNOWN_METHOD;
    return session ? session->standing.TellOfService(name) : KEL_OK;
}

int KelSatellite::Impl::Listen(const char* service) {
    if (!service || !*service) throw KelInvalidParameterException("AddServiceAvailabilityListener: which service?");
    const SessionPtr session = current_.Get();
    if (session && !session->link.listens) return KEL_NOT_CONNECTED;  // attached as a caller only
    if (session) return session->standing.Listen(service);
    kel::Subscribe(subscriptions_, service);
    return KEL_OK;
}

int KelSatellite::Impl::StopListening(const char* service) {
    if (!service) return KEL_OK;
    if (const SessionPtr session = current_.Get()) return session->standing.StopListening(service);
    kel::Unsubscribe(subscriptions_, service);
    return KEL_OK;
}

// --- Calling ---------------------------------------------------------------------------------------------------------

int KelSatellite::Impl::Request(const char* satellite, const char* method, const tagVARIANT& in, tagVARIANT* out,
                                KELFLAGS flags, tagVARIANT* extra, std::chrono::milliseconds timeout) {
    if (!satellite || !*satellite || !method || !*method) {
        throw KelInvalidParameterException("Request: a satellite and a method are needed");
    }
    // They are emptied, and go when the call has ended: `in` may be one of them, or lie in one.
    const ScopedVariant before[] = {TakeFrom(out), TakeFrom(extra)};
    const tagVARIANT& sent = &in == out ? before[0] : &in == extra ? before[1] : in;
    std::string problem;
    int code = KEL_NOT_CONNECTED;
    if (const SessionPtr session = current_.Get()) {
        const Deadline deadline = std::chrono::steady_clock::now() + timeout;
        ScopedVariant value;
        code = flags & KELFLAG_ONE_WAY ? session->link.Post(satellite, method, sent, problem)
                                       : session->link.Call(satellite, method, sent, deadline, value, problem);
        if (out) *out = value.release();
    } else {
        problem = "not connected to a directory";
    }
    if (problem.empty()) return code;
    if (extra) *extra = MakeString(problem.c_str()).release();
    problem_.Keep(problem);
    return code;
}

bool KelSatellite::Impl::WaitForOneWayRoom(const char* satellite, int milliseconds) {
    const SessionPtr session = current_.Get();
    return session && session->link.oneWay.AwaitRoom(satellite, std::chrono::milliseconds(milliseconds));
}

void KelSatellite::Impl::ForgetAddress(const char* satellite) {
    if (const SessionPtr session = current_.Get()) session->link.addresses.Forget(satellite);
}

int KelSatellite::Impl::Ping(const char* name, const char* host, unsigned short port, int satId, KELSTATUS* status,
                             std::chrono::milliseconds timeout) {
    *status = KEL_PING_NO_WAY;
    std::string problem;
    int result;
    if (const SessionPtr session = current_.Get()) {
        result = session->link.pings.Ping(name, {host, port}, satId, timeout, status, problem);
    } else {
        Link asking(Receiver(), Address(), CStdStr(), Link::Role::caller);
        asking.endpoint.Start();
        result = asking.pings.Ping(name, {host, port}, satId, timeout, status, problem);
        asking.endpoint.Close();
    }
    if (result != KEL_OK) problem_.Keep(problem);
    return result;
}

void KelSatellite::Impl::PingLater(const char* name, const char* host, unsigned short port, int satId,
                                   PingHandler heard) {
    const SessionPtr session = current_.Get();
    if (session) session->link.pings.PingLater(name, {host, port}, satId, std::move(heard));
}
