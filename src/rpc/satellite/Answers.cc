#include "rpc/satellite/Answers.h"

#include "rpc/satellite/RunningCall.h"
#include "rpc/values/KelException.h"
#include "rpc/values/KelResult.h"
#include "rpc/values/VUtil.h"

#include <functional>

namespace kel {

using namespace transport;

namespace {

constexpr const char* availabilityMethod = "OnServiceAvailabilityChanged";

}  // namespace

void Answers::OnCall(Connection& connection, wire::Message& call) {
    const auto method = [&](ScopedVariant& out) { return RunMethod(connection, call, out); };
    RunningCall(connection, call).Run(std::cref(method));
}

int Answers::RunMethod(Connection& connection, const wire::Message& call, ScopedVariant& out) {
    if (call.method == "kel.Ping") {
        out = AnswerPing(call.value);
        return KEL_OK;
    }
    if (call.method == "kel.Describe") {
        out = AnswerDescribe();
        return KEL_OK;
    }
    int result = 0;
    const int code = satellite_.OnServiceRequested(connection.descriptor(), call.caller.c_str(), call.method.c_str(),
                                                   call.value, &out, &result);
    if (code == KEL_OK) return result;
    if (code == KEL_UNKNOWN_METHOD && call.method == availabilityMethod) return TellAvailability(call.value);
    CStdStr text;
    text.Format(code == KEL_UNKNOWN_METHOD ? "unknown method %s" : "%s was refused", call.method.c_str());
    throw KelException(text.c_str(), code);
}

// The directory's news of a service becomes the virtual call, unless the satellite publishes the method itself.
int Answers::TellAvailability(const tagVARIANT& in) {
    VUtil::CheckArrayType(in, VT_VARIANT, 3, availabilityMethod);
    const CStdStr service = VUtil::GetStringElement(in, 0);
    const CStdStr provider = VUtil::GetStringElement(in, 1);
    const int status = VUtil::GetIntElement(in, 2);
    if (const SessionPtr session = current_.Get()) {
        const auto tell = [this, service, provider, status] {
            satellite_.OnServiceAvailabilityChanged(service.c_str(), provider.c_str(), status);
        };
        session->link.news.Append(tell, sizeof tell + service.size() + provider.size());
    }
    return KEL_OK;
}

ScopedVariant Answers::AnswerPing(const tagVARIANT& in) {
    VUtil::CheckArrayType(in, VT_VARIANT, 2, "kel.Ping");
    const CStdStr name = VUtil::GetStringElement(in, 0);
    const int satId = VUtil::GetIntElement(in, 1);
    return MakeInt(ssicmp(name.c_str(), name_.c_str()) == 0 && IsOwnId(satId) ? 1 : 0);
}

bool Answers::IsOwnId(int satId) {
    const SessionPtr session = current_.Get();
    return session ? session->standing.IsOwnId(satId) : satId == 0;
}

ScopedVariant Answers::AnswerDescribe() const {
    return VUtil::MakeListOf(methods_.All(),
                             [](const Service& method) { return VUtil::MakeList(method.name, method.description); });
}

}  // namespace kel
