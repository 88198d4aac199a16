#include "foundation/LogText.h"

namespace kel {

namespace {

bool IsControl(char c) { return static_cast<unsigned char>(c) < 0x20 || c == 0x7f; }

// In UTF-8 these are the bytes C2 80 to C2 9F.
bool IsUpperControl(std::string_view text, size_t at) {
    return text[at] == '\xc2' && at + 1 < text.size() && (text[at + 1] & '\xe0') == '\x80';
}

char* WriteEscape(char* to, char c) {
    constexpr char digits[] = "0123456789abcdef";
    const auto byte = static_cast<unsigned char>(c);
    *to++ = '\\';
    if (c == '\n' || c == '\r' || c == '\t') {
        *to++ = c == '\n' ? 'n' : c == '\r' ? 'r' : 't';
        return to;
    }
    *to++ = 'x';
    *to++ = digits[byte / 16];
    *to++ = digits[byte % 16];
    return to;
}

}  // namespace

bool HasControls(std::string_view text) {
    for (size_t at = 0; at < text.size(); ++at) {
        if (IsControl(text[at]) || IsUpperControl(text, at)) return true;
    }
    return false;
}

char* WritePrintable(char* to, std::string_view text) {
    for (size_t at = 0; at < text.size(); ++at) {
        if (IsUpperControl(text, at)) {
            to = WriteEscape(to, text[at++]);
            to = WriteEscape(to, text[at]);
        } else if (IsControl(text[at])) {
            to = WriteEscape(to, text[at]);
        } else {
            *to++ = text[at];
        }
    }
    return to;
}

void AppendPrintable(CStdStr& line, std::string_view text) {
    if (!HasControls(text)) {
        line.append(text);
        return;
    }
    const size_t end = line.size();
    line.resize(end + text.size() * printableGrowth);
    line.resize(static_cast<size_t>(WritePrintable(line.data() + end, text) - line.data()));
}

}  // namespace kel
