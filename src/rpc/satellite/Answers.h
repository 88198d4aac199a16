// What a satellite answers when it is called.
#pragma once

#include "rpc/satellite/KelSatellite.h"
#include "rpc/satellite/MethodTable.h"
#include "rpc/satellite/Session.h"
#include "rpc/transport/Endpoint.h"

namespace kel {

// Runs the published methods, and those that every satellite has: kel.Ping, kel.Describe and the directory's news.
class Answers {
public:
    // `name` is the satellite's; it does not change while an endpoint exists. All of these outlive the object.
    Answers(KelSatellite& satellite, const MethodTable& methods, const CStdStr& name, CurrentSession& current)
        : satellite_(satellite), methods_(methods), name_(name), current_(current) {}

    void OnCall(transport::Connection& connection, wire::Message& call);

private:
    int RunMethod(transport::Connection& connection, const wire::Message& call, ScopedVariant& out);
    int TellAvailability(const tagVARIANT& in);
    ScopedVariant AnswerPing(const tagVARIANT& in);
    bool IsOwnId(int satId);
    ScopedVariant AnswerDescribe() const;

    KelSatellite& satellite_;
    const MethodTable& methods_;
    const CStdStr& name_;
    CurrentSession& current_;
};

}  // namespace kel
