#include "foundation/StdString.h"

#include "foundation/StandardStreams.h"

#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <new>

namespace {

// Most texts of the system fit; longer ones are formatted a second time into a buffer of their exact size.
constexpr size_t firstBuffer = 128;

bool isSpace(char c) { return std::isspace(static_cast<unsigned char>(c)) != 0; }

}  // namespace

void CStdStr::Format(const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    FormatV(format, arguments);
    va_end(arguments);
}

void CStdStr::FormatV(const char* format, va_list arguments) {
    clear();
    AppendFormatV(format, arguments);
}

void CStdStr::AppendFormat(const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    AppendFormatV(format, arguments);
    va_end(arguments);
}

void CStdStr::AppendFormatV(const char* format, va_list arguments) {
    char first[firstBuffer];
    va_list again;
    va_copy(again, arguments);
    const int length = vsnprintf(first, sizeof first, format, arguments);
    // A negative length is a character that cannot be converted, which no larger buffer cures.
    if (length >= 0) {
        const size_t size = static_cast<size_t>(length);
        try {
            if (size < sizeof first) {
                append(first, size);
            } else {
                const auto whole = std::make_unique_for_overwrite<char[]>(size + 1);
                if (vsnprintf(whole.get(), size + 1, format, again) == length) append(whole.get(), size);
            }
        } catch (const std::bad_alloc&) {  // append has changed nothing then
        }
    }
    va_end(again);
}

CStdStr& CStdStr::Trim() {
    size_t last = size();
    while (last > 0 && isSpace((*this)[last - 1])) --last;
    erase(last);
    size_t first = 0;
    while (first < size() && isSpace((*this)[first])) ++first;
    erase(0, first);
    return *this;
}

int CStdStr::Replace(const char* oldText, const char* newText) {
    const std::string from(oldText ? oldText : "");
    const std::string to(newText ? newText : "");
    if (from.empty()) return 0;

    std::string result;
    int count = 0;
    size_t done = 0;
    for (size_t found = find(from); found != npos; found = find(from, done)) {
        result.append(*this, done, found - done).append(to);
        done = found + from.size();
        ++count;
    }
    if (count > 0) {
        result.append(*this, done, npos);
        swap(result);
    }
    return count;
}

CStdStr CStdStr::Mid(size_t first, size_t count) const {
    if (first > size() || count > size() - first) {
        kel::PrintError("./StdString.h:4039: failed assertion `(nFirst + nCount <= nSize)'\n");
        std::abort();
    }
    return CStdStr(data() + first, count);
}

CStdStr& CStdStr::ToLower() {
    for (char& c : *this) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return *this;
}
