#include "rpc/values/VUtil.h"

#include "rpc/values/VUtilInside.h"

#include <utility>

namespace {

constexpr char putFailed[] = "SafeArrayPutElement failed";

void PutRaw(tagVARIANT& v, int i, void* element) {
    long index = i;
    if (!(v.vt & VT_ARRAY) || SafeArrayPutElement(v.parray, &index, element) != S_OK) {
        throw KelInvalidParameterException(putFailed);
    }
}

// Stores `value` in an array of variants and takes it over.
void PutWrapped(tagVARIANT& v, int i, ScopedVariant& value) {
    if (!kel::Replace(kel::ElementAt<tagVARIANT>(v, VT_VARIANT, i), value))
        throw KelInvalidParameterException(putFailed);
}

// A long of the caller's in 32 bits.
template <typename Narrow, typename Wide>
Narrow Narrowed(Wide value) {
    const auto narrow = static_cast<Narrow>(value);
    if (narrow == value) return narrow;
    throw KelInvalidParameterException("PutElement failed: a long of more than 32 bits; use long long");
}

// Puts a value that owns nothing, of which `member` is the place in a variant.
template <typename Stored>
void Put(tagVARIANT& v, int i, VARTYPE type, Stored tagVARIANT::*member, Stored value, const char* wrongArray) {
    if (v.vt == (VT_ARRAY | type)) {
        Stored* element = kel::ElementAt<Stored>(v, type, i);
        if (!element) throw KelInvalidParameterException(putFailed);
        *element = value;
    } else if (v.vt == (VT_ARRAY | VT_VARIANT)) {
        ScopedVariant wrapped;
        wrapped.vt = type;
        wrapped.*member = value;
        PutWrapped(v, i, wrapped);
    } else {
        throw KelInvalidParameterException(wrongArray);
    }
}

void PutText(tagVARIANT& v, int i, std::string_view text) {
    if (v.vt != (VT_ARRAY | VT_BSTR) && v.vt != (VT_ARRAY | VT_VARIANT)) {
        throw KelInvalidParameterException("PutElement failed: not an array of BSTR nor VARIANT");
    }
    ScopedVariant wrapped = MakeString(text);
    if (!wrapped.bstrVal) throw KelInvalidParameterException(putFailed);
    if (v.vt == (VT_ARRAY | VT_VARIANT)) return PutWrapped(v, i, wrapped);
    BSTR* element = kel::ElementAt<BSTR>(v, VT_BSTR, i);
    if (!element) throw KelInvalidParameterException(putFailed);
    std::swap(*element, wrapped.bstrVal);
}

}  // namespace

void VUtil::PutElement(tagVARIANT& v, int i, short value) {
    Put<int16_t>(v, i, VT_I2, &tagVARIANT::iVal, value, "PutElement failed: not an array of I2 nor VARIANT");
}

void VUtil::PutElement(tagVARIANT& v, int i, unsigned short value) {
    Put<uint16_t>(v, i, VT_UI2, &tagVARIANT::uiVal, value, "PutElement failed: not an array of UI2 nor VARIANT");
}

void VUtil::PutElement(tagVARIANT& v, int i, int value) {
    Put<int32_t>(v, i, VT_I4, &tagVARIANT::lVal, value, "PutElement failed: not an array of I4 nor VARIANT");
}

void VUtil::PutElement(tagVARIANT& v, int i, unsigned value) {
    Put<uint32_t>(v, i, VT_UI4, &tagVARIANT::ulVal, value, "PutElement failed: not an array of UI4 nor VARIANT");
}

void VUtil::PutElement(tagVARIANT& v, int i, long value) { PutElement(v, i, Narrowed<int>(value)); }

void VUtil::PutElement(tagVARIANT& v, int i, unsigned long value) { PutElement(v, i, Narrowed<unsigned>(value)); }

void VUtil::PutElement(tagVARIANT& v, int i, long long value) {
    Put(v, i, VT_I8, &tagVARIANT::llVal, value, "PutElement failed: not an array of I8 nor VARIANT");
}

void VUtil::PutElement(tagVARIANT& v, int i, unsigned long long value) {
    Put(v, i, VT_UI8, &tagVARIANT::ullVal, value, "PutElement failed: not an array of UI8 nor VARIANT");
}

void VUtil::PutElement(tagVARIANT& v, int i, unsigned char value) {
    Put<uint8_t>(v, i, VT_UI1, &tagVARIANT::bVal, value, "PutElement failed: not an array of UI1 nor VARIANT");
}

void VUtil::PutElement(tagVARIANT& v, int i, float value) {
    Put(v, i, VT_R4, &tagVARIANT::fltVal, value, "PutElement failed: not an array of R4 nor VARIANT");
}

void VUtil::PutElement(tagVARIANT& v, int i, double value) {
    Put(v, i, VT_R8, &tagVARIANT::dblVal, value, "PutElement failed: not an array of R8 nor VARIANT");
}

void VUtil::PutElement(tagVARIANT& v, int i, bool value) {
    if (v.vt == (VT_ARRAY | VT_I4)) PutElement(v, i, int{value});
    else PutBoolElement(v, i, value);
}

void VUtil::PutBoolElement(tagVARIANT& v, int i, bool value) {
    VARIANT_BOOL stored = VARIANT_FALSE;
    if (value) stored = v.vt == (VT_ARRAY | VT_BOOL) ? 1 : VARIANT_TRUE;
    Put(v, i, VT_BOOL, &tagVARIANT::boolVal, stored, "PutElement failed: not an array of BOOL nor VARIANT");
}

void VUtil::PutDateElement(tagVARIANT& v, int i, long time) {
    Put(v, i, VT_DATE, &tagVARIANT::date, TimeToDate(time), "PutElement failed: not an array of DATE nor VARIANT");
}

void VUtil::PutElement(tagVARIANT& v, int i, const CStdStr& value) { PutElement(v, i, value.c_str()); }

void VUtil::PutElement(tagVARIANT& v, int i, const std::string& value) { PutElement(v, i, value.c_str()); }

void VUtil::PutElement(tagVARIANT& v, int i, const char* value) { PutText(v, i, value ? value : ""); }

void VUtil::PutElement(tagVARIANT& v, int i, std::string_view value) {
    if (value.find('\0') != value.npos)
        throw KelInvalidParameterException("PutElement failed: a text with a zero in it");
    PutText(v, i, value);
}

void VUtil::PutElement(tagVARIANT& v, int i, std::nullptr_t) { PutElement(v, i, ""); }

void VUtil::PutElement(tagVARIANT& v, int i, void* element) { PutRaw(v, i, element); }

void VUtil::PutElement(tagVARIANT& v, int i, const tagVARIANT& element) {
    // The address of a variant is no text.
    if (v.vt == (VT_ARRAY | VT_BSTR)) throw KelInvalidParameterException(putFailed);
    PutRaw(v, i, const_cast<tagVARIANT*>(&element));
}

void VUtil::PutElement(tagVARIANT& v, int i, ScopedVariant&& element) {
    if (v.vt == (VT_ARRAY | VT_VARIANT)) {
        PutWrapped(v, i, element);
    } else {
        PutElement(v, i, static_cast<const tagVARIANT&>(element));
    }
}
