// Whole values: pair lists as maps, comparison, fields of comma-separated lines.
#include "rpc/values/VUtil.h"

#include "rpc/values/VUtilInside.h"

#include <cstring>
#include <utility>

namespace {

using StringMap = std::map<CStdStr, CStdStr>;

CStdStr TextValue(const tagVARIANT& pair) { return kel::TextAt(pair, 1); }

CStdStr TextOrIntValue(const tagVARIANT& pair) {
    const tagVARIANT value = kel::ViewAt(pair, 1);
    if (value.vt == VT_BSTR) return value.bstrVal;
    if (value.vt != VT_I4) {
        throw KelInvalidParameterException("the value in the pair is neither a string nor an int");
    }
    CStdStr text;
    kel::AppendNumber(value, text);
    return text;
}

StringMap ToMap(const tagVARIANT& list, bool lowerKeys, const char* notAList, CStdStr (*valueOf)(const tagVARIANT&)) {
    if (list.vt != (VT_ARRAY | VT_VARIANT)) throw KelInvalidParameterException(notAList);
    StringMap map;
    const int count = VUtil::GetArrayLength(list);
    for (int i = 0; i < count; ++i) {
        const tagVARIANT& pair = kel::VariantAt(list, i, notAList);
        if (pair.vt == VT_EMPTY) continue;
        CStdStr key = kel::TextAt(pair, 0);
        if (lowerKeys) key.ToLower();
        map.emplace(std::move(key), valueOf(pair));
    }
    return map;
}

bool EqualTexts(const char* a, const char* b) { return std::strcmp(a ? a : "", b ? b : "") == 0; }

bool IsComparable(VARTYPE type) {
    constexpr uint32_t types = 1u << VT_EMPTY | 1u << VT_NULL | 1u << VT_I1 | 1u << VT_UI1 | 1u << VT_I2 |
                               1u << VT_UI2 | 1u << VT_I4 | 1u << VT_UI4 | 1u << VT_I8 | 1u << VT_UI8 | 1u << VT_R4 |
                               1u << VT_R8 | 1u << VT_DATE | 1u << VT_BOOL | 1u << VT_BSTR;
    return type <= VT_UI8 && (types >> type & 1);
}

// Of two values of the same comparable type.
bool EqualScalars(const tagVARIANT& a, const tagVARIANT& b) {
    switch (a.vt) {
        case VT_EMPTY:
        case VT_NULL:
            return true;
        case VT_I1:
        case VT_UI1:
            return a.bVal == b.bVal;
        case VT_I2:
        case VT_UI2:
            return a.uiVal == b.uiVal;
        case VT_I4:
        case VT_UI4:
            return a.ulVal == b.ulVal;
        case VT_R4:
            return a.fltVal == b.fltVal;
        case VT_R8:
        case VT_DATE:
            return a.dblVal == b.dblVal;
        case VT_BOOL:
            return (a.boolVal != VARIANT_FALSE) == (b.boolVal != VARIANT_FALSE);
        case VT_BSTR:
            return EqualTexts(a.bstrVal, b.bstrVal);
        default:
            return a.ullVal == b.ullVal;
    }
}

bool EqualArrays(const tagVARIANT& a, const tagVARIANT& b) {
    const VARTYPE type = a.vt & ~VT_ARRAY;
    if (type != VT_VARIANT && !IsComparable(type)) {
        kel::ThrowInvalid(nullptr, "VUtil::Equals: cannot compare values for array type %d", a.vt);
    }
    const int count = VUtil::GetArrayLength(a);
    if (count != VUtil::GetArrayLength(b)) return false;
    for (int i = 0; i < count; ++i) {
        if (!VUtil::Equals(kel::ViewAt(a, i), kel::ViewAt(b, i))) return false;
    }
    return true;
}

CStdStr CsvField(const char* text) {
    if (!text) return {};
    if (!std::strpbrk(text, ",\"\r\n")) return text;
    CStdStr field = text;
    field.Replace("\"", "\"\"");
    return "\"" + field + "\"";
}

}  // namespace

StringMap VUtil::toStringMap(const tagVARIANT& list, bool lowerKeys) {
    return ToMap(list, lowerKeys, "Variant passed to VUtil::toStringMap is not an array", TextValue);
}

StringMap VUtil::toStringAMap(const tagVARIANT& list, bool lowerKeys) {
    return ToMap(list, lowerKeys, "Variant passed to VUtil::toStringAMap is not an array", TextOrIntValue);
}

bool VUtil::Equals(const tagVARIANT& a, const tagVARIANT& b) {
    if (a.vt != b.vt) return false;
    if (a.vt & VT_ARRAY) return EqualArrays(a, b);
    if (!IsComparable(a.vt)) kel::ThrowInvalid(nullptr, "VUtil::Equals: cannot compare values for type %d", a.vt);
    return EqualScalars(a, b);
}

CStdStr VUtil::GetCSVElement(const tagVARIANT& v, long index) {
    if (!(v.vt & VT_ARRAY)) throw KelInvalidParameterException("Not an array of variant");
    const tagVARIANT element = kel::ViewAt(v, index);
    CStdStr field;
    if (element.vt == VT_EMPTY || element.vt == VT_NULL) return field;
    if (element.vt == VT_BSTR) return CsvField(element.bstrVal);
    if (element.vt == VT_BOOL) return element.boolVal != VARIANT_FALSE ? "TRUE" : "FALSE";
    if (element.vt == VT_DATE) {
        kel::AppendDate(element.date, field);
    } else if (!kel::AppendNumber(element, field)) {
        throw KelInvalidParameterException("Element is not a string");
    }
    return field;
}
