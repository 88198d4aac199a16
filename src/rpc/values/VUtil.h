// VUtil: what methods read and build their parameters with.
//
// The parameters of a remote method are one array of variants (VT_ARRAY|VT_VARIANT), element i being parameter i;
// element 0 of an out-parameter is a VT_I4 return code, 0 for success. A pair is an array of two variants, a text key
// and a value; a pair list is an array of variants that hold a pair each, or are empty.
//
//     *out = VUtil::MakeList(0, VUtil::GetStringElement(in, 0)).release();
//
// Every misuse (wrong type, wrong length, index out of range, a number or text that does not fit) throws
// KelInvalidParameterException, which a method may let travel to its caller. Nothing is changed by a call that throws,
// unless its comment says so.
//
// A `long` here is a number of 32 bits in the variant, VT_I4 or VT_UI4, and a larger one throws; for 64 bits use
// (unsigned) long long, which int64_t is not. Indexes count from 0. Threads: as for the values themselves (Variant.h).
#pragma once

#include "foundation/Export.h"
#include "foundation/StdString.h"
#include "rpc/values/KelException.h"
#include "rpc/values/Variant.h"

#include <cstddef>
#include <map>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

namespace kel {

// What a list may hold: no pointer but to a text.
template <typename T>
constexpr bool isListable = !std::is_pointer_v<std::decay_t<T>> ||
                            std::is_same_v<std::remove_cv_t<std::remove_pointer_t<std::decay_t<T>>>, char>;

}  // namespace kel

class KEL_API VUtil {
public:
    // --- Lists: arrays of variants, made of values as PutElement takes them, lists among them ---

    template <typename... Values, typename = std::enable_if_t<(kel::isListable<Values> && ...)>>
    static ScopedVariant MakeList(Values&&... values) {
        ScopedVariant list;
        CreateArray(list, VT_VARIANT, sizeof...(values));
        [[maybe_unused]] int i = 0;
        (PutElement(list, i++, std::forward<Values>(values)), ...);
        return list;
    }
    // Of what `each` makes of every element of `range`.
    template <typename Range, typename Each>
    static ScopedVariant MakeListOf(const Range& range, Each&& each) {
        ScopedVariant list;
        CreateArray(list, VT_VARIANT, range.size());
        int i = 0;
        for (const auto& element : range) PutElement(list, i++, each(element));
        return list;
    }
    // Of the elements themselves.
    template <typename Range, typename = std::enable_if_t<kel::isListable<typename Range::value_type>>>
    static ScopedVariant MakeListOf(const Range& range) {
        ScopedVariant list;
        CreateArray(list, VT_VARIANT, range.size());
        int i = 0;
        for (const auto& element : range) PutElement(list, i++, element);
        return list;
    }
    // The bytes, as VT_ARRAY|VT_UI1.
    static ScopedVariant MakeBytes(const void* data, size_t length);

    // --- Arrays ---

    // Stores an array of `count` empty elements of type `vt` in `v`, whose previous contents are not freed.
    static void CreateArray(tagVARIANT& v, unsigned short vt, unsigned long count);
    static void RedimArray(tagVARIANT& v, unsigned long count);
    static int GetArrayLength(const tagVARIANT& v);
    // The same, but 0 for a VT_EMPTY variant.
    static int GetArrayLengthEmpty(const tagVARIANT& v);

    // --- Checks: they return when all is well. `context`, when given, starts the message, followed by ": " ---

    static void CheckType(const tagVARIANT& v, unsigned short vt, const char* context = nullptr);
    // An array of `elementVt` with exactly `length` elements; with `orMore` at least that many.
    static void CheckArrayType(const tagVARIANT& v, unsigned short elementVt, int length, bool orMore,
                               const char* context = nullptr);
    static void CheckArrayType(const tagVARIANT& v, unsigned short elementVt, int length,
                               const char* context = nullptr);

    // --- Putting elements: into an array of the value's own type, or wrapped into an array of variants ---

    static void PutElement(tagVARIANT& v, int i, short value);               // VT_I2
    static void PutElement(tagVARIANT& v, int i, unsigned short value);      // VT_UI2
    static void PutElement(tagVARIANT& v, int i, int value);                 // VT_I4
    static void PutElement(tagVARIANT& v, int i, unsigned value);            // VT_UI4
    static void PutElement(tagVARIANT& v, int i, long value);                // VT_I4
    static void PutElement(tagVARIANT& v, int i, unsigned long value);       // VT_UI4
    static void PutElement(tagVARIANT& v, int i, long long value);           // VT_I8
    static void PutElement(tagVARIANT& v, int i, unsigned long long value);  // VT_UI8
    static void PutElement(tagVARIANT& v, int i, unsigned char value);       // VT_UI1
    static void PutElement(tagVARIANT& v, int i, float value);               // VT_R4
    static void PutElement(tagVARIANT& v, int i, double value);              // VT_R8
    static void PutElement(tagVARIANT& v, int i, const CStdStr& value);      // VT_BSTR
    static void PutElement(tagVARIANT& v, int i, const std::string& value);  // VT_BSTR
    static void PutElement(tagVARIANT& v, int i, const char* value);         // VT_BSTR
    static void PutElement(tagVARIANT& v, int i, std::string_view value);  // VT_BSTR; throws for one with a zero in it
    static void PutElement(tagVARIANT& v, int i, bool value);              // VT_BOOL; 1 or 0 in an array of VT_I4
    // A list, of bytes VT_ARRAY|VT_UI1. For arrays of variants.
    template <typename T>
    static void PutElement(tagVARIANT& v, int i, const std::vector<T>& values) {
        CheckType(v, VT_ARRAY | VT_VARIANT, "PutElement");
        if constexpr (std::is_same_v<T, unsigned char>) PutElement(v, i, MakeBytes(values.data(), values.size()));
        else PutElement(v, i, MakeListOf(values));
    }
    // True is -1 in an array of variants, but 1 in an array of VT_BOOL.
    static void PutBoolElement(tagVARIANT& v, int i, bool value);
    // `time` in seconds since 1970.
    static void PutDateElement(tagVARIANT& v, int i, long time);
    // The element as SafeArrayPutElement takes it for the array's type, which is not checked: the string itself for
    // VT_BSTR, else a pointer to the value. It is copied.
    static void PutElement(tagVARIANT& v, int i, void* element);
    // The same, but throws where something else would be read as a variant.
    template <typename T, typename = std::enable_if_t<!std::is_const_v<T> && !std::is_same_v<T, char>>>
    static void PutElement(tagVARIANT& v, int i, T* element) {
        if (!std::is_base_of_v<tagVARIANT, T> && v.vt == (VT_ARRAY | VT_VARIANT)) {
            throw KelInvalidParameterException("PutElement failed: the address of something else than a variant");
        }
        PutElement(v, i, static_cast<void*>(element));
    }
    template <typename T>
    static void PutElement(tagVARIANT& v, int i, const T* element) = delete;
    // A copy of `element`, for arrays of variants. The array's type is not checked: one of numbers takes raw bytes, one
    // of texts fails.
    static void PutElement(tagVARIANT& v, int i, const tagVARIANT& element);
    // The same without the copy: in an array of variants `element` is taken over and empty afterwards.
    static void PutElement(tagVARIANT& v, int i, ScopedVariant&& element);
    // An empty text.
    static void PutElement(tagVARIANT& v, int i, std::nullptr_t);

    // --- Getting elements of an array of exactly the value's own type ---

    static void GetElement(const tagVARIANT& v, int i, bool& out);                // VT_BOOL, true when not 0
    static void GetElement(const tagVARIANT& v, int i, short& out);               // VT_I2
    static void GetElement(const tagVARIANT& v, int i, unsigned short& out);      // VT_UI2
    static void GetElement(const tagVARIANT& v, int i, int& out);                 // VT_I4
    static void GetElement(const tagVARIANT& v, int i, long& out);                // VT_I4
    static void GetElement(const tagVARIANT& v, int i, unsigned long& out);       // VT_UI4
    static void GetElement(const tagVARIANT& v, int i, long long& out);           // VT_I8
    static void GetElement(const tagVARIANT& v, int i, unsigned long long& out);  // VT_UI8
    static void GetElement(const tagVARIANT& v, int i, float& out);               // VT_R4
    static void GetElement(const tagVARIANT& v, int i, double& out);              // VT_R8
    static void GetElement(const tagVARIANT& v, int i, CStdStr& out);             // VT_BSTR
    // Clears `out`, which may be `v` itself, and stores a copy; `out` is empty when the element cannot be read.
    static void GetElement(const tagVARIANT& v, int i, tagVARIANT& out);  // VT_VARIANT

    // --- Getting elements of an array of the value's own type or of variants that hold it ---

    static long GetLongElement(const tagVARIANT& v, int i);
    static int GetIntElement(const tagVARIANT& v, int i);
    static short GetShortElement(const tagVARIANT& v, int i);
    static unsigned short GetUnsignedShortElement(const tagVARIANT& v, int i);
    static unsigned GetUnsignedElement(const tagVARIANT& v, int i);                    // VT_UI4
    static long long GetLongLongElement(const tagVARIANT& v, int i);                   // VT_I8
    static unsigned long long GetUnsignedLongLongElement(const tagVARIANT& v, int i);  // VT_UI8
    static double GetDoubleElement(const tagVARIANT& v, int i);
    static float GetFloatElement(const tagVARIANT& v, int i);  // VT_R8 too, narrowed
    static bool GetBoolElement(const tagVARIANT& v, int i);
    static long GetDateElement(const tagVARIANT& v, int i);       // in seconds since 1970
    static CStdStr GetStringElement(const tagVARIANT& v, int i);  // an empty element is the empty text

    // Element i of an array of variants, which is an array itself: GetVector of it.
    template <typename T>
    static std::vector<T> GetVectorElement(const tagVARIANT& v, int i);

    // All elements of an array, as the getters above give one; none of a VT_EMPTY variant. T is what one of them
    // returns, std::string, or unsigned char for bytes.
    template <typename T>
    static std::vector<T> GetVector(const tagVARIANT& v);

    // The same, where an empty element is 0, false or the empty text.
    static long GetLongElementEmpty(const tagVARIANT& v, int i);
    // Converts elements of the type codes up to VT_UI4: numbers and dates are true when not 0; texts when neither
    // empty, "0" nor "false" in any case; VT_NULL and codes that stand for no type here are false.
    static bool GetBoolElementEmpty(const tagVARIANT& v, int i);
    static CStdStr GetStringElementEmpty(const tagVARIANT& v, int i);

    // Element 0 of an out-parameter, which must be a text.
    static void GetSingleOutParamString(tagVARIANT& out, CStdStr& s);

    // --- Return codes ---

    // Element 0 of an out-parameter, or the value of a plain VT_I4.
    static long GetSingleRetcode(tagVARIANT& out);
    // Throws unless that code is 0; anything that holds no code counts as -1.
    static void CheckSingleRetcode(tagVARIANT& out, const char* context = nullptr);

    // --- Pairs ---

    static void PutPair(tagVARIANT& list, int i, const CStdStr& key, const CStdStr& value);
    static void PutPair(tagVARIANT& list, int i, const CStdStr& key, long value);  // VT_I4
    static void PutPair(tagVARIANT& list, int i, const CStdStr& key, const tagVARIANT& value);
    // VT_BOOL, VT_R8 or VT_I4.
    template <typename T, typename = std::enable_if_t<std::is_arithmetic_v<T>>>
    static void PutPair(tagVARIANT& list, int i, const CStdStr& key, T value) {
        if constexpr (std::is_same_v<T, bool>) PutPair(list, i, key, MakeBool(value));
        else if constexpr (std::is_floating_point_v<T>) PutPair(list, i, key, MakeDouble(value));
        else PutPair(list, i, key, MakeInt(value));
    }
    static void GetPair(const tagVARIANT& list, int i, CStdStr& key, CStdStr& value);
    // Look the first pair with `key` up and store its value; false, with `value` untouched, when there is none. An
    // element before it that is neither empty nor a pair throws. NoCase compares lower-cased with the current locale.
    static bool FindPair(const tagVARIANT& list, const CStdStr& key, CStdStr& value);
    static bool FindPairNoCase(const tagVARIANT& list, const CStdStr& key, CStdStr& value);
    static bool FindPairNoCase(const tagVARIANT& list, const CStdStr& key, int& value);  // VT_I4
    static bool FindPairNoCase(const tagVARIANT& list, const CStdStr& key, tagVARIANT& value);

    // --- Bytes ---

    // Clears `v` and stores a copy of the bytes as VT_ARRAY|VT_UI1; with no memory for it, `v` has that type, no array.
    // Throws, changing nothing, while the array that is there is being accessed.
    static void PutBinaryIntoVariant(tagVARIANT* v, const unsigned char* data, unsigned long length);
    // Copies `length` bytes from `offset` of `v`, a VT_ARRAY|VT_UI1 or VT_ARRAY|VT_I1.
    static void GetBinaryElement(const tagVARIANT& v, unsigned char* buffer, unsigned long offset,
                                 unsigned long length);
    // Copies the VT_ARRAY|VT_UI1 that element i of an array of variants holds into new memory, which the caller
    // releases with free(); it is never null.
    static void GetBinaryElement(const tagVARIANT& v, int i, unsigned char*& data, unsigned long& length);
    // The same; returns the length.
    static unsigned long GetByteArray(const tagVARIANT& v, int i, unsigned char** data);
    // A copy of the bytes of a VT_ARRAY|VT_UI1 or VT_ARRAY|VT_I1, and of one that is element i of an array of variants.
    static std::vector<unsigned char> GetBytes(const tagVARIANT& v);
    static std::vector<unsigned char> GetBytesElement(const tagVARIANT& v, int i);

    // --- Dates: VT_DATE from and to seconds since 1970, rounded to whole seconds ---

    static double TimeToDate(long t);
    static long DateToTime(double d);

    // --- Text forms; each appends to `out`, also when it throws at an array that cannot be read: what stands before
    // that array. Depth 1 indents by three blanks ---

    // One XML element a line and value, nested for arrays. Arrays of bytes and of floating-point numbers show their
    // length only. A null `v` adds nothing.
    static void VariantToXML(const tagVARIANT* v, int depth, CStdStr& out);
    static void VariantToXML(const tagVARIANT* v, CStdStr& out);

    // A shorter form for people: 7, "text", true, (empty), (date)2009-06-30 12:00:00, [12 UI1 elements]. Arrays of
    // variants and of texts are listed between "[" and "]", each element on a line of its own one level deeper. There
    // is no line end behind the last line.
    static void VariantToFriendlyString(const tagVARIANT* v, CStdStr& out, int depth = 0);

    // Writes "TITLE: Dumping" and the XML form to the standard output.
    static void Dump(const tagVARIANT* v, const CStdStr& title);

    // --- Whole values ---

    // A pair list as a map. Empty slots are left out; of equal keys the first counts, as for FindPair. With `lowerKeys`
    // the keys are lower-cased with the current locale. The values are texts; those of toStringMap may be empty, those
    // of toStringAMap also VT_I4, which appear in decimal. Any other value throws.
    static std::map<CStdStr, CStdStr> toStringMap(const tagVARIANT& list, bool lowerKeys = false);
    static std::map<CStdStr, CStdStr> toStringAMap(const tagVARIANT& list, bool lowerKeys = false);

    // Same type and same value, element by element in arrays; numbers are never converted, all true booleans are equal,
    // and so are null and empty texts. Throws for two values of a type that is not listed in Variant.h.
    static bool Equals(const tagVARIANT& a, const tagVARIANT& b);

    // Element `index` of an array as one field of a comma-separated line (RFC 4180): numbers and dates as in the
    // friendly form, TRUE or FALSE, nothing for VT_EMPTY and VT_NULL. A text with a comma, a double quote or a line
    // break stands between double quotes, its own ones doubled. An element that is an array itself throws.
    static CStdStr GetCSVElement(const tagVARIANT& v, long index);
};

template <typename T>
std::vector<T> VUtil::GetVector(const tagVARIANT& v) {
    if constexpr (std::is_same_v<T, unsigned char>) {
        return v.vt == VT_EMPTY ? std::vector<T>() : GetBytes(v);
    } else {
        const auto get = [&v](int i) {
            if constexpr (std::is_same_v<T, bool>) return GetBoolElement(v, i);
            else if constexpr (std::is_same_v<T, short>) return GetShortElement(v, i);
            else if constexpr (std::is_same_v<T, unsigned short>) return GetUnsignedShortElement(v, i);
            else if constexpr (std::is_same_v<T, int>) return GetIntElement(v, i);
            else if constexpr (std::is_same_v<T, unsigned>) return GetUnsignedElement(v, i);
            else if constexpr (std::is_same_v<T, long>) return GetLongElement(v, i);
            else if constexpr (std::is_same_v<T, long long>) return GetLongLongElement(v, i);
            else if constexpr (std::is_same_v<T, unsigned long long>) return GetUnsignedLongLongElement(v, i);
            else if constexpr (std::is_same_v<T, float>) return GetFloatElement(v, i);
            else if constexpr (std::is_same_v<T, double>) return GetDoubleElement(v, i);
            else return GetStringElement(v, i);
        };
        std::vector<T> values;
        const int count = GetArrayLengthEmpty(v);
        values.reserve(static_cast<size_t>(count));
        for (int i = 0; i < count; ++i) values.push_back(get(i));
        return values;
    }
}

template <typename T>
std::vector<T> VUtil::GetVectorElement(const tagVARIANT& v, int i) {
    ScopedVariant element;
    GetElement(v, i, element);
    return GetVector<T>(element);
}
