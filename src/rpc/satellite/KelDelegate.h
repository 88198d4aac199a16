// Delegates: what libkel calls when a published method is asked for. The library owns every delegate that it is given,
// calls it on its own threads, several calls at once, and destroys it only when no call of it runs.
//
// A method reads `in`, fills `out` (empty when it is called) and returns 0 for success or a code of its own; the code
// and `out` travel to the caller. A KelException that it throws travels as the exception's code and text.
#pragma once

#include "foundation/Export.h"
#include "rpc/values/KelException.h"
#include "rpc/values/Variant.h"

// A published method that needs nothing but its parameters. `caller` is the calling satellite's name, or empty.
class KEL_API KelSatelliteDelegateGeneric {
public:
    virtual ~KelSatelliteDelegateGeneric();
    virtual int Invoke(const char* caller, const tagVARIANT& in, tagVARIANT* out) = 0;
};

// Wraps a plain function, which must not be null.
class KEL_API KelSatelliteDelegateFunction : public KelSatelliteDelegateGeneric {
public:
    using Function = int (*)(const char*, const tagVARIANT&, tagVARIANT*);

    explicit KelSatelliteDelegateFunction(Function function) : function_(function) {
        if (!function) throw KelInvalidParameterException("KelSatelliteDelegateFunction: a function is needed");
    }
    int Invoke(const char* caller, const tagVARIANT& in, tagVARIANT* out) override {
        return function_(caller, in, out);
    }

private:
    Function function_;
};

// A published method that also wants the descriptor of the connection that carried the call, for getpeername and the
// like. The descriptor is open for the length of the call and stays the library's.
class KEL_API KelSatelliteDelegateGenericEx : public KelSatelliteDelegateGeneric {
public:
    virtual int Invoke(int socket, const char* caller, const tagVARIANT& in, tagVARIANT* out) = 0;
    int Invoke(const char* caller, const tagVARIANT& in, tagVARIANT* out) override {
        return Invoke(0, caller, in, out);
    }
};

// Wraps a member function of `object`, which must outlive the publication.
template <typename T>
class KelSatelliteDelegateMemberEx : public KelSatelliteDelegateGenericEx {
public:
    using Method = int (T::*)(int, const char*, const tagVARIANT&, tagVARIANT*);

    KelSatelliteDelegateMemberEx(T* object, Method method) : object_(object), method_(method) {
        if (!object || !method)
            throw KelInvalidParameterException("KelSatelliteDelegateMemberEx: which method of what?");
    }

    using KelSatelliteDelegateGenericEx::Invoke;
    int Invoke(int socket, const char* caller, const tagVARIANT& in, tagVARIANT* out) override {
        return (object_->*method_)(socket, caller, in, out);
    }

private:
    T* object_;
    Method method_;
};
