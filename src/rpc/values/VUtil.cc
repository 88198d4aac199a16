// Arrays, checks, return codes and dates. The other rooms: VUtilPut.cc, VUtilGet.cc, VUtilPairs.cc, VUtilBinary.cc,
// VUtilValues.cc and VUtilText.cc.
#include "rpc/values/VUtil.h"

#include "rpc/values/VUtilInside.h"

#include <algorithm>
#include <cmath>
#include <cstdarg>
#include <cstdio>

namespace {

constexpr unsigned long maxElements = UINT32_MAX;
constexpr long secondsPerDay = 86400;
constexpr long daysTo1970 = 25569;  // from 1899-12-30

int ArrayLength(const tagVARIANT& v) {
    long lower = 0;
    long upper = 0;
    if (SafeArrayGetLBound(v.parray, 1, &lower) < 0 || SafeArrayGetUBound(v.parray, 1, &upper) < 0) {
        throw KelInvalidParameterException("SafeArrayGetLBound failed in VUtil::GetArrayLength");
    }
    if (lower != 0) throw KelInvalidParameterException("Array is not zero indexed! (VUtil::GetArrayLength)");
    return static_cast<int>(upper + 1);
}

}  // namespace

void kel::ThrowInvalid(const char* context, const char* format, ...) {
    char message[KelException::messageCapacity];
    size_t used = 0;
    if (context) {
        const int length = std::snprintf(message, sizeof message, "%s: ", context);
        used = std::min(static_cast<size_t>(std::max(length, 0)), sizeof message - 1);
    }
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(message + used, sizeof message - used, format, arguments);
    va_end(arguments);
    throw KelInvalidParameterException(message);
}

void VUtil::CreateArray(tagVARIANT& v, unsigned short vt, unsigned long count) {
    const SAFEARRAYBOUND bound{static_cast<uint32_t>(count), 0};
    SAFEARRAY* array = count <= maxElements ? SafeArrayCreate(vt, 1, &bound) : nullptr;
    if (!array) throw KelInvalidParameterException("Could not create safe array");
    v.vt = static_cast<VARTYPE>(VT_ARRAY | vt);
    v.parray = array;
}

void VUtil::RedimArray(tagVARIANT& v, unsigned long count) {
    const SAFEARRAYBOUND bound{static_cast<uint32_t>(count), 0};
    if (!(v.vt & VT_ARRAY) || count > maxElements || SafeArrayRedim(v.parray, &bound) != S_OK) {
        throw KelInvalidParameterException("Could not redimension safe array");
    }
}

int VUtil::GetArrayLength(const tagVARIANT& v) {
    if (v.vt & VT_ARRAY) return ArrayLength(v);
    throw KelInvalidParameterException("Variant passed to VUtil::GetArrayLength is not an array");
}

int VUtil::GetArrayLengthEmpty(const tagVARIANT& v) {
    if (v.vt == VT_EMPTY) return 0;
    if (v.vt & VT_ARRAY) return ArrayLength(v);
    throw KelInvalidParameterException("Variant passed to VUtil::GetArrayLengthEmpty is not an array");
}

void VUtil::CheckType(const tagVARIANT& v, unsigned short vt, const char* context) {
    if (v.vt != vt) kel::ThrowInvalid(context, "checkType failed, got %d, expected %d", v.vt, vt);
}

void VUtil::CheckArrayType(const tagVARIANT& v, unsigned short elementVt, int length, bool orMore,
                           const char* context) {
    const int expected = VT_ARRAY | elementVt;
    if (v.vt != expected) {
        kel::ThrowInvalid(context, "checkArrayType failed, got %d, expected %d", v.vt, expected);
    }
    const int got = GetArrayLength(v);
    if (orMore ? got < length : got != length) {
        kel::ThrowInvalid(context, "checkArrayType failed, got length %d, expect %d%s", got, length, orMore ? "+" : "");
    }
}

void VUtil::CheckArrayType(const tagVARIANT& v, unsigned short elementVt, int length, const char* context) {
    CheckArrayType(v, elementVt, length, false, context);
}

long VUtil::GetSingleRetcode(tagVARIANT& out) {
    if (out.vt == VT_I4) return out.lVal;
    if (!(out.vt & VT_ARRAY)) throw KelInvalidParameterException("VUtil::GetSingleRetcode wrong type");
    try {
        return GetLongElement(out, 0);
    } catch (const KelException& failure) {
        kel::ThrowInvalid(nullptr, "safeArrayGetElement failed in VUtil::GetSingleRetcode : '%s'",
                          failure.GetMessage());
    }
}

void VUtil::CheckSingleRetcode(tagVARIANT& out, const char* context) {
    const bool holdsCode = out.vt == VT_I4 || (out.vt & VT_ARRAY);
    const long code = holdsCode ? GetSingleRetcode(out) : -1;
    if (code == 0) return;
    kel::ThrowInvalid(context, "Kel error detected in VUtil::CheckSingleRetcode : hr = %ld - 0x%lx", code,
                      static_cast<unsigned long>(static_cast<uint32_t>(code)));
}

double VUtil::TimeToDate(long t) {
    return static_cast<double>(t % secondsPerDay) / static_cast<double>(secondsPerDay) +
           static_cast<double>(t / secondsPerDay + daysTo1970);
}

long VUtil::DateToTime(double d) {
    // Beyond this the seconds do not fit; a value that is no number counts as day 0.
    constexpr double maxDays = 1e14;
    const double date = std::isnan(d) ? 0 : std::clamp(d, -maxDays, maxDays);
    const long days = static_cast<long>(date);
    const double rest = date - static_cast<double>(days);
    return static_cast<long>(rest * static_cast<double>(secondsPerDay) + 0.5) + (days - daysTo1970) * secondsPerDay;
}
