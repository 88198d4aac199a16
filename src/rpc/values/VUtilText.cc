// The text forms of VUtil: XML for logs and dumps, and the friendly form.
#include "rpc/values/VUtil.h"

#include "rpc/values/VUtilInside.h"

#include <cstdio>
#include <ctime>
#include <iterator>
#include <string>

namespace {

void Indent(CStdStr& out, int depth) {
    if (depth > 0) out.append(static_cast<size_t>(depth) * 3, ' ');
}

// Indexed by type code; null for codes that stand for no type.
constexpr const char* typeNames[] = {
    "VT_EMPTY", "VT_NULL",    "VT_I2", "VT_I4", "VT_R4", "VT_R8", nullptr,  "VT_DATE", "VT_BSTR", nullptr, nullptr,
    "VT_BOOL",  "VT_VARIANT", nullptr, nullptr, nullptr, "VT_I1", "VT_UI1", "VT_UI2",  "VT_UI4",  "VT_I8", "VT_UI8"};

// Null for a type that the text forms do not know.
const char* ScalarName(VARTYPE type) {
    return type < std::size(typeNames) && type != VT_VARIANT ? typeNames[type] : nullptr;
}

// How an array appears: element by element, by its length, or by its type code like any type that is not known.
enum class ArrayForm { listed, counted, unknown };

ArrayForm FormOf(VARTYPE elementType) {
    switch (elementType) {
        case VT_VARIANT:
        case VT_BSTR:
        case VT_I2:
        case VT_UI2:
        case VT_I4:
        case VT_UI4:
        case VT_I8:
        case VT_UI8:
            return ArrayForm::listed;
        case VT_I1:
        case VT_UI1:
        case VT_R4:
        case VT_R8:
            return ArrayForm::counted;
        default:
            return ArrayForm::unknown;
    }
}

void AppendEscaped(CStdStr& out, const char* text) {
    for (; text && *text; ++text) {
        switch (*text) {
            case '&':
                out += "&amp;";
                break;
            case '"':
                out += "&quot;";
                break;
            case '\'':
                out += "&apos;";
                break;
            case '<':
                out += "&lt;";
                break;
            case '>':
                out += "&gt;";
                break;
            default:
                out += *text;
        }
    }
}

void AppendXmlValue(CStdStr& out, const tagVARIANT& v) {
    if (v.vt == VT_BSTR) {
        AppendEscaped(out, v.bstrVal);
    } else if (v.vt == VT_BOOL) {
        out += v.boolVal != VARIANT_FALSE ? "TRUE" : "FALSE";
    } else if (v.vt == VT_DATE) {
        kel::AppendDate(v.date, out);
    } else {
        kel::AppendNumber(v, out);
    }
}

void AppendXmlUnknown(CStdStr& out, VARTYPE type) { out.AppendFormat("<var vt=\"%d (unknown)\" />\n", type); }

void AppendXmlArray(CStdStr& out, const tagVARIANT& v, int depth) {
    const VARTYPE elementType = v.vt & ~VT_ARRAY;
    const ArrayForm form = FormOf(elementType);
    if (form == ArrayForm::unknown) return AppendXmlUnknown(out, v.vt);
    const int count = VUtil::GetArrayLength(v);
    out.AppendFormat("<var vt=\"VT_ARRAY|%s\" count=\"%d\"", typeNames[elementType], count);
    if (form == ArrayForm::counted) {
        out += " />\n";
        return;
    }
    out += ">\n";
    for (int i = 0; i < count; ++i) {
        const tagVARIANT element = kel::ViewAt(v, i);
        VUtil::VariantToXML(&element, depth + 1, out);
    }
    Indent(out, depth);
    out += "</var>\n";
}

void AppendFriendlyList(CStdStr& out, const tagVARIANT& v, int depth) {
    const int count = VUtil::GetArrayLength(v);
    out += "[\n";
    for (int i = 0; i < count; ++i) {
        const tagVARIANT element = kel::ViewAt(v, i);
        VUtil::VariantToFriendlyString(&element, out, depth + 1);
        out += '\n';
    }
    Indent(out, depth);
    out += ']';
}

void AppendFriendlyArray(CStdStr& out, const tagVARIANT& v, int depth) {
    const VARTYPE elementType = v.vt & ~VT_ARRAY;
    if (elementType == VT_VARIANT || elementType == VT_BSTR) {
        AppendFriendlyList(out, v, depth);
    } else if (FormOf(elementType) == ArrayForm::unknown) {
        out.AppendFormat("(unknown vt %d)", v.vt);
    } else {
        out.AppendFormat("[%d %s elements]", VUtil::GetArrayLength(v), typeNames[elementType] + sizeof "VT_" - 1);
    }
}

}  // namespace

bool kel::AppendNumber(const tagVARIANT& v, CStdStr& out) {
    switch (v.vt) {
        case VT_I1:
            out += std::to_string(v.cVal);
            return true;
        case VT_UI1:
            out += std::to_string(v.bVal);
            return true;
        case VT_I2:
            out += std::to_string(v.iVal);
            return true;
        case VT_UI2:
            out += std::to_string(v.uiVal);
            return true;
        case VT_I4:
            out += std::to_string(v.lVal);
            return true;
        case VT_UI4:
            out += std::to_string(v.ulVal);
            return true;
        case VT_I8:
            out += std::to_string(v.llVal);
            return true;
        case VT_UI8:
            out += std::to_string(v.ullVal);
            return true;
        case VT_R4:
            out.AppendFormat("%f", static_cast<double>(v.fltVal));
            return true;
        case VT_R8:
            out.AppendFormat("%f", v.dblVal);
            return true;
        default:
            return false;
    }
}

void kel::AppendDate(DATE date, CStdStr& out) {
    const time_t seconds = VUtil::DateToTime(date);
    tm parts{};
    char text[20];
    if (gmtime_r(&seconds, &parts) && std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &parts) > 0) out += text;
}

void VUtil::VariantToXML(const tagVARIANT* v, int depth, CStdStr& out) {
    if (!v) return;
    Indent(out, depth);
    if (v->vt & VT_ARRAY) return AppendXmlArray(out, *v, depth);
    const char* type = ScalarName(v->vt);
    if (!type) return AppendXmlUnknown(out, v->vt);
    out.append("<var vt=\"").append(type);
    if (v->vt == VT_EMPTY || v->vt == VT_NULL) {
        out += "\" />\n";
        return;
    }
    out += "\">";
    AppendXmlValue(out, *v);
    out += "</var>\n";
}

void VUtil::VariantToXML(const tagVARIANT* v, CStdStr& out) { VariantToXML(v, 0, out); }

void VUtil::VariantToFriendlyString(const tagVARIANT* v, CStdStr& out, int depth) {
    if (!v) return;
    Indent(out, depth);
    if (v->vt & VT_ARRAY) {
        AppendFriendlyArray(out, *v, depth);
        return;
    }
    switch (v->vt) {
        case VT_EMPTY:
            out += "(empty)";
            break;
        case VT_NULL:
            out += "(null)";
            break;
        case VT_BOOL:
            out += v->boolVal != VARIANT_FALSE ? "true" : "false";
            break;
        case VT_BSTR:
            out.append("\"").append(v->bstrVal ? v->bstrVal : "") += '"';
            break;
        case VT_DATE:
            out += "(date)";
            kel::AppendDate(v->date, out);
            break;
        default:
            if (!kel::AppendNumber(*v, out)) out.AppendFormat("(unknown vt %d)", v->vt);
    }
}

void VUtil::Dump(const tagVARIANT* v, const CStdStr& title) {
    CStdStr text = title + ": Dumping\n";
    VariantToXML(v, text);
    std::fwrite(text.data(), 1, text.size(), stdout);
}
