#include "rpc/values/VUtil.h"

#include "rpc/values/VUtilInside.h"

#include <cctype>
#include <cstring>
#include <utility>

namespace {

// Takes `value` over.
void StorePair(tagVARIANT& list, int i, const CStdStr& key, ScopedVariant value) {
    const SAFEARRAYBOUND bound{2, 0};
    ScopedVariant pair;
    pair.parray = SafeArrayCreate(VT_VARIANT, 1, &bound);
    if (!pair.parray) throw KelInvalidParameterException("Could not create safe array in PutPair");
    pair.vt = VT_ARRAY | VT_VARIANT;
    ScopedVariant text = MakeString(key.c_str());
    const bool complete = text.bstrVal && kel::Replace(kel::ElementAt<tagVARIANT>(pair, VT_VARIANT, 0), text) &&
                          kel::Replace(kel::ElementAt<tagVARIANT>(pair, VT_VARIANT, 1), value);
    if (!complete || !kel::Replace(kel::ElementAt<tagVARIANT>(list, VT_VARIANT, i), pair)) {
        throw KelInvalidParameterException("PutPair failed");
    }
}

void CheckIsList(const tagVARIANT& list, const char* wrongType) {
    if (list.vt != (VT_ARRAY | VT_VARIANT)) throw KelInvalidParameterException(wrongType);
}

void CheckIsListForPut(const tagVARIANT& list) {
    CheckIsList(list, "PutPair: the given variant is not an array of variants");
}

bool EqualNoCase(const char* a, const char* b, size_t length) {
    const auto lower = [](char c) { return std::tolower(static_cast<unsigned char>(c)); };
    for (size_t i = 0; i < length; ++i) {
        if (a[i] != b[i] && lower(a[i]) != lower(b[i])) return false;
    }
    return true;
}

bool EqualBytes(const char* a, const char* b, size_t length) { return std::memcmp(a, b, length) == 0; }

// The first pair of the list with `key`; null when there is none. `equal` compares as many characters as the key has.
const tagVARIANT* FirstPair(const tagVARIANT& list, const CStdStr& key,
                            bool (*equal)(const char*, const char*, size_t)) {
    constexpr char notAList[] = "Variant passed to VUtil::FindPair is not an array";
    CheckIsList(list, notAList);
    for (int i = 0; i < VUtil::GetArrayLength(list); ++i) {
        const tagVARIANT& pair = kel::VariantAt(list, i, notAList);
        if (pair.vt == VT_EMPTY) continue;
        const char* text = kel::TextAt(pair, 0);
        if (std::strlen(text) == key.size() && equal(text, key.data(), key.size())) return &pair;
    }
    return nullptr;
}

}  // namespace

void VUtil::PutPair(tagVARIANT& list, int i, const CStdStr& key, const CStdStr& value) {
    CheckIsListForPut(list);
    ScopedVariant text = MakeString(value.c_str());
    if (!text.bstrVal) throw KelInvalidParameterException("PutPair failed");
    StorePair(list, i, key, std::move(text));
}

void VUtil::PutPair(tagVARIANT& list, int i, const CStdStr& key, long value) {
    CheckIsListForPut(list);
    StorePair(list, i, key, MakeInt(value));
}

void VUtil::PutPair(tagVARIANT& list, int i, const CStdStr& key, const tagVARIANT& value) {
    CheckIsListForPut(list);
    ScopedVariant copy;
    if (VariantCopy(&copy, &value) != S_OK) throw KelInvalidParameterException("PutPair failed");
    StorePair(list, i, key, std::move(copy));
}

void VUtil::GetPair(const tagVARIANT& list, int i, CStdStr& key, CStdStr& value) {
    const tagVARIANT& pair = kel::VariantAt(list, i, "Variant passed to VUtil::GetPair is not an array",
                                            "SafeArrayGetElement failed in VUtil::GetPair");
    const char* keyText = kel::TextAt(pair, 0);
    value = kel::TextAt(pair, 1);
    key = keyText;
}

bool VUtil::FindPair(const tagVARIANT& list, const CStdStr& key, CStdStr& value) {
    const tagVARIANT* pair = FirstPair(list, key, EqualBytes);
    if (pair) value = kel::TextAt(*pair, 1);
    return pair != nullptr;
}

bool VUtil::FindPairNoCase(const tagVARIANT& list, const CStdStr& key, CStdStr& value) {
    const tagVARIANT* pair = FirstPair(list, key, EqualNoCase);
    if (pair) value = kel::TextAt(*pair, 1);
    return pair != nullptr;
}

bool VUtil::FindPairNoCase(const tagVARIANT& list, const CStdStr& key, int& value) {
    const tagVARIANT* pair = FirstPair(list, key, EqualNoCase);
    if (pair) value = GetIntElement(*pair, 1);
    return pair != nullptr;
}

bool VUtil::FindPairNoCase(const tagVARIANT& list, const CStdStr& key, tagVARIANT& value) {
    const tagVARIANT* pair = FirstPair(list, key, EqualNoCase);
    if (pair) GetElement(*pair, 1, value);
    return pair != nullptr;
}
