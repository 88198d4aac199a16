// CStdStr, the string class of the system: a std::string of bytes with printf-style formatting, trimming, replacing
// and case-insensitive comparison. No encoding is assumed.
#pragma once

#include "foundation/Export.h"

#include <cstdarg>
#include <cstddef>
#include <string>
#include <utility>

class KEL_API CStdStr : public std::string {
public:
    CStdStr() = default;
    CStdStr(const std::string& text) : std::string(text) {}
    CStdStr(std::string&& text) noexcept : std::string(std::move(text)) {}
    // A null pointer gives the empty string.
    CStdStr(const char* text) : std::string(text ? text : "") {}
    CStdStr(const char* text, size_t length) : std::string(text, length) {}

    CStdStr& operator=(const char* text) {
        if (text) assign(text);
        else clear();
        return *this;
    }
    CStdStr& operator=(const std::string& text) {
        assign(text);
        return *this;
    }
    CStdStr& operator=(std::string&& text) noexcept {
        std::string::operator=(std::move(text));
        return *this;
    }

    // Replaces the contents by the printf-style formatting of the arguments; there is no length limit. The string is
    // emptied first, so no argument may point into it. Without memory for the text it stays empty.
    void Format(const char* format, ...) __attribute__((format(printf, 2, 3)));
    void FormatV(const char* format, va_list arguments) __attribute__((format(printf, 2, 0)));
    // Appends the formatting to the contents; here arguments may point into the string. Without memory for the text it
    // stays as it is.
    void AppendFormat(const char* format, ...) __attribute__((format(printf, 2, 3)));
    void AppendFormatV(const char* format, va_list arguments) __attribute__((format(printf, 2, 0)));

    // Removes leading and trailing white space, as the locale classifies it; returns the string itself.
    CStdStr& Trim();

    // Replaces every occurrence of `oldText`, searching on behind each inserted text; returns the number of
    // replacements. A null or empty `oldText` replaces nothing, a null `newText` counts as empty. Either may point into
    // the string.
    int Replace(const char* oldText, const char* newText);

    // `count` characters from index `first`. Asking beyond the end is a programming error and ends the process.
    CStdStr Mid(size_t first, size_t count) const;

    // Lower-cases every character with the current locale; returns the string itself.
    CStdStr& ToLower();
};

// Compares without regard to ASCII case (the classic locale): the difference of the first two lowered characters that
// differ, as signed 8-bit values; 0 when equal. Reads up to the terminating NUL of either text.
template <typename Char>
int ssicmp(const Char* a, const Char* b) {
    const auto lower = [](Char c) -> signed char {
        return static_cast<signed char>(c >= 'A' && c <= 'Z' ? c + ('a' - 'A') : c);
    };
    for (;; ++a, ++b) {
        if (*a == *b && static_cast<signed char>(*a) != 0) continue;
        const signed char x = lower(*a);
        const signed char y = lower(*b);
        if (x != y || x == 0) return x - y;
    }
}

// Strict weak ordering for maps whose keys are names: Player and player are the same key.
struct CaseInsensitiveLess {
    using is_transparent = void;
    bool operator()(const CStdStr& a, const CStdStr& b) const { return ssicmp(a.c_str(), b.c_str()) < 0; }
    bool operator()(const CStdStr& a, const char* b) const { return ssicmp(a.c_str(), b) < 0; }
    bool operator()(const char* a, const CStdStr& b) const { return ssicmp(a, b.c_str()) < 0; }
};
