#include "rpc/values/VUtil.h"

#include "rpc/values/VUtilInside.h"

#include <strings.h>
#include <cstring>

namespace {

// Reads from an array of exactly `type`, whose elements are `Stored`.
template <typename Stored, typename T>
void Read(const tagVARIANT& v, int i, VARTYPE type, T& out, const char* wrongArray) {
    if (v.vt != (VT_ARRAY | type)) throw KelInvalidParameterException(wrongArray);
    const Stored* element = kel::ElementAt<const Stored>(v, type, i);
    if (!element) throw KelInvalidParameterException(kel::elementUnreadable);
    out = static_cast<T>(*element);
}

// How a getter of the generous family finds its value, and what it says when it does not.
template <typename Stored>
struct Wanted {
    VARTYPE type;
    Stored tagVARIANT::*member;
    const char* wrongElement;
    const char* wrongArray;
};

constexpr Wanted<int32_t> wantedLong{VT_I4, &tagVARIANT::lVal, "Element is not a long",
                                     "Not an array of variant or long"};
constexpr Wanted<int32_t> wantedInt{VT_I4, &tagVARIANT::lVal, "Element is not an int",
                                    "Not an array of variant or int"};
constexpr Wanted<int16_t> wantedShort{VT_I2, &tagVARIANT::iVal, "Element is not a short",
                                      "Not an array of variant or short"};
constexpr Wanted<uint16_t> wantedUnsignedShort{VT_UI2, &tagVARIANT::uiVal, "Element is not an unsigned short",
                                               "Not an array of variant or unsigned short"};
constexpr Wanted<uint32_t> wantedUnsigned{VT_UI4, &tagVARIANT::ulVal, "Element is not an unsigned int",
                                          "Not an array of variant or unsigned int"};
constexpr Wanted<long long> wantedLongLong{VT_I8, &tagVARIANT::llVal, "Element is not a long long",
                                           "Not an array of variant or long long"};
constexpr Wanted<unsigned long long> wantedUnsignedLongLong{VT_UI8, &tagVARIANT::ullVal,
                                                            "Element is not an unsigned long long",
                                                            "Not an array of variant or unsigned long long"};
constexpr Wanted<double> wantedDouble{VT_R8, &tagVARIANT::dblVal, "Element is not a double",
                                      "Not an array of variant or double"};
constexpr Wanted<VARIANT_BOOL> wantedBool{VT_BOOL, &tagVARIANT::boolVal, "Element is not a bool",
                                          "Not an array of variant or bool"};
constexpr Wanted<DATE> wantedDate{VT_DATE, &tagVARIANT::date, "Element is not a date",
                                  "Not an array of variant or date"};

template <typename Stored>
const Stored& Find(const tagVARIANT& v, int i, const Wanted<Stored>& wanted,
                   const char* unreadable = kel::elementUnreadable) {
    if (v.vt == (VT_ARRAY | wanted.type)) {
        const Stored* element = kel::ElementAt<const Stored>(v, wanted.type, i);
        if (!element) throw KelInvalidParameterException(unreadable);
        return *element;
    }
    const tagVARIANT& element = kel::VariantAt(v, i, wanted.wrongArray, unreadable);
    if (element.vt != wanted.type) throw KelInvalidParameterException(wanted.wrongElement);
    return element.*wanted.member;
}

bool IsEmptyElement(const tagVARIANT& v, int i) {
    const tagVARIANT* element = kel::ElementAt<const tagVARIANT>(v, VT_VARIANT, i);
    return element && element->vt == VT_EMPTY;
}

bool IsTrueText(const char* text) {
    return text && *text && std::strcmp(text, "0") != 0 && strcasecmp(text, "false") != 0;
}

// For the type codes up to VT_UI4.
bool IsTrue(const tagVARIANT& v) {
    switch (v.vt) {
        case VT_I1:
        case VT_UI1:
            return v.bVal != 0;
        case VT_I2:
        case VT_UI2:
        case VT_BOOL:
            return v.uiVal != 0;
        case VT_I4:
        case VT_UI4:
            return v.ulVal != 0;
        case VT_R4:
            return v.fltVal != 0;
        case VT_R8:
        case VT_DATE:
            return v.dblVal != 0;
        case VT_BSTR:
            return IsTrueText(v.bstrVal);
        default:
            return false;
    }
}

}  // namespace

const tagVARIANT& kel::VariantAt(const tagVARIANT& v, int i, const char* wrongArray, const char* unreadable) {
    if (v.vt != (VT_ARRAY | VT_VARIANT)) throw KelInvalidParameterException(wrongArray);
    const tagVARIANT* element = ElementAt<const tagVARIANT>(v, VT_VARIANT, i);
    if (!element) throw KelInvalidParameterException(unreadable);
    return *element;
}

const char* kel::TextAt(const tagVARIANT& v, int i) {
    constexpr Wanted<BSTR> wanted{VT_BSTR, &tagVARIANT::bstrVal, "Element is not a string",
                                  "Not an array of variant or string"};
    if (IsEmptyElement(v, i)) return "";
    const char* text = Find(v, i, wanted);
    return text ? text : "";
}

tagVARIANT kel::ViewAt(const tagVARIANT& v, long index) {
    const auto type = static_cast<VARTYPE>(v.vt & ~VT_ARRAY);
    const auto* element = ElementAt<const unsigned char>(v, type, index);
    if (!element) throw KelInvalidParameterException(elementUnreadable);
    tagVARIANT view{};
    if (type == VT_VARIANT) {
        std::memcpy(&view, element, sizeof view);
    } else {
        view.vt = type;
        std::memcpy(&view.llVal, element, v.parray->elementSize);
    }
    return view;
}

void VUtil::GetElement(const tagVARIANT& v, int i, bool& out) {
    Read<VARIANT_BOOL>(v, i, VT_BOOL, out, "Variant passed to VUtil::GetElement is not a short array");
}

void VUtil::GetElement(const tagVARIANT& v, int i, short& out) {
    Read<int16_t>(v, i, VT_I2, out, "Variant passed to VUtil::GetElement is not a short array");
}

void VUtil::GetElement(const tagVARIANT& v, int i, unsigned short& out) {
    Read<uint16_t>(v, i, VT_UI2, out, "Variant passed to VUtil::GetElement is not a unsigned short array");
}

void VUtil::GetElement(const tagVARIANT& v, int i, int& out) {
    Read<int32_t>(v, i, VT_I4, out, "Variant passed to VUtil::GetElement is not an int array");
}

void VUtil::GetElement(const tagVARIANT& v, int i, long& out) {
    Read<int32_t>(v, i, VT_I4, out, "Variant passed to VUtil::GetElement is not a long array");
}

void VUtil::GetElement(const tagVARIANT& v, int i, unsigned long& out) {
    Read<uint32_t>(v, i, VT_UI4, out, "Variant passed to VUtil::GetElement is not a unsigned long array");
}

void VUtil::GetElement(const tagVARIANT& v, int i, long long& out) {
    Read<long long>(v, i, VT_I8, out, "Variant passed to VUtil::GetElement is not a int64 array");
}

void VUtil::GetElement(const tagVARIANT& v, int i, unsigned long long& out) {
    Read<unsigned long long>(v, i, VT_UI8, out, "Variant passed to VUtil::GetElement is not a unsigned int64 array");
}

void VUtil::GetElement(const tagVARIANT& v, int i, float& out) {
    Read<float>(v, i, VT_R4, out, "Variant passed to VUtil::GetElement is not a float array");
}

void VUtil::GetElement(const tagVARIANT& v, int i, double& out) {
    Read<double>(v, i, VT_R8, out, "Variant passed to VUtil::GetElement is not a double array");
}

void VUtil::GetElement(const tagVARIANT& v, int i, CStdStr& out) {
    const char* text = nullptr;
    Read<BSTR>(v, i, VT_BSTR, text, "Variant passed to VUtil::GetElement is not a string array");
    out = text ? text : "";
}

void VUtil::GetElement(const tagVARIANT& v, int i, tagVARIANT& out) {
    if (v.vt != (VT_ARRAY | VT_VARIANT)) {
        throw KelInvalidParameterException("Variant passed to VUtil::GetElement is not a variant array");
    }
    long index = i;
    ScopedVariant copy;  // taken before `out` is cleared, which may hold the array
    const HRESULT result = SafeArrayGetElement(v.parray, &index, &copy);
    if (VariantClear(&out) != S_OK || result != S_OK) throw KelInvalidParameterException(kel::elementUnreadable);
    out = copy.release();
}

long VUtil::GetLongElement(const tagVARIANT& v, int i) { return Find(v, i, wantedLong); }
long VUtil::GetLongElementEmpty(const tagVARIANT& v, int i) { return IsEmptyElement(v, i) ? 0 : GetLongElement(v, i); }
int VUtil::GetIntElement(const tagVARIANT& v, int i) { return Find(v, i, wantedInt); }
short VUtil::GetShortElement(const tagVARIANT& v, int i) { return Find(v, i, wantedShort); }
unsigned short VUtil::GetUnsignedShortElement(const tagVARIANT& v, int i) { return Find(v, i, wantedUnsignedShort); }
unsigned VUtil::GetUnsignedElement(const tagVARIANT& v, int i) { return Find(v, i, wantedUnsigned); }
long long VUtil::GetLongLongElement(const tagVARIANT& v, int i) { return Find(v, i, wantedLongLong); }
unsigned long long VUtil::GetUnsignedLongLongElement(const tagVARIANT& v, int i) {
    return Find(v, i, wantedUnsignedLongLong);
}
double VUtil::GetDoubleElement(const tagVARIANT& v, int i) { return Find(v, i, wantedDouble); }
bool VUtil::GetBoolElement(const tagVARIANT& v, int i) { return Find(v, i, wantedBool) != VARIANT_FALSE; }

float VUtil::GetFloatElement(const tagVARIANT& v, int i) {
    constexpr char wrongArray[] = "Not an array of variant, float or double";
    if (!(v.vt & VT_ARRAY)) throw KelInvalidParameterException(wrongArray);
    const VARTYPE type = v.vt & ~VT_ARRAY;
    if (type != VT_R4 && type != VT_R8 && type != VT_VARIANT) throw KelInvalidParameterException(wrongArray);
    const tagVARIANT element = kel::ViewAt(v, i);
    if (element.vt == VT_R4) return element.fltVal;
    if (element.vt == VT_R8) return static_cast<float>(element.dblVal);
    throw KelInvalidParameterException("Element is not a float or a double");
}

bool VUtil::GetBoolElementEmpty(const tagVARIANT& v, int i) {
    if (v.vt == (VT_ARRAY | VT_BOOL)) return GetBoolElement(v, i);
    const tagVARIANT& element = kel::VariantAt(v, i, wantedBool.wrongArray);
    if (element.vt > VT_UI4) throw KelInvalidParameterException(wantedBool.wrongElement);
    return IsTrue(element);
}

long VUtil::GetDateElement(const tagVARIANT& v, int i) {
    return DateToTime(Find(v, i, wantedDate, "SafeArrayGetElement failed in VUtil::GetDateElement"));
}

CStdStr VUtil::GetStringElement(const tagVARIANT& v, int i) { return kel::TextAt(v, i); }
CStdStr VUtil::GetStringElementEmpty(const tagVARIANT& v, int i) { return kel::TextAt(v, i); }

void VUtil::GetSingleOutParamString(tagVARIANT& out, CStdStr& s) {
    const auto* first = kel::ElementAt<const unsigned char>(out, out.vt & ~VT_ARRAY, 0);
    if (!first) throw KelInvalidParameterException("SafeArrayGetElement failed in VUtil::GetSingleOutParamString");
    const tagVARIANT element = kel::ViewAt(out, 0);
    if (element.vt != VT_BSTR) {
        throw KelInvalidParameterException("outParam is not a BSTR in VUtil::GetSingleOutParamString");
    }
    s = element.bstrVal ? element.bstrVal : "";
}
