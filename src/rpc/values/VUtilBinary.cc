#include "rpc/values/VUtil.h"

#include "rpc/values/VUtilInside.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

namespace {

// A copy that the caller frees; `length` bytes, but never null.
unsigned char* CopyBytes(const tagVARIANT& bytes, unsigned long length) {
    auto* copy = static_cast<unsigned char*>(std::malloc(std::max(length, 1ul)));
    if (!copy) throw KelInvalidParameterException("Could not allocate data buffer");
    std::memcpy(copy, bytes.parray->elements, length);
    return copy;
}

}  // namespace

ScopedVariant VUtil::MakeBytes(const void* data, size_t length) {
    ScopedVariant bytes;
    PutBinaryIntoVariant(&bytes, static_cast<const unsigned char*>(data), length);
    return bytes;
}

void VUtil::PutBinaryIntoVariant(tagVARIANT* v, const unsigned char* data, unsigned long length) {
    if (!v) throw KelInvalidParameterException("PutBinaryIntoVariant: a variant is needed");
    const SAFEARRAYBOUND bound{static_cast<uint32_t>(length), 0};
    SAFEARRAY* array = length <= UINT32_MAX ? SafeArrayCreate(VT_UI1, 1, &bound) : nullptr;
    void* bytes = nullptr;
    if (array && data && SafeArrayAccessData(array, &bytes) == S_OK) {
        std::memcpy(bytes, data, length);
        SafeArrayUnaccessData(array);
    }
    const bool isCleared = VariantClear(v) == S_OK;  // only now: `data` may lie inside
    if (isCleared) {
        v->vt = VT_ARRAY | VT_UI1;
        v->parray = array;
        if (array) return;
    }
    SafeArrayDestroy(array);
    throw KelInvalidParameterException("PutBinaryIntoVariant: could not create safe array");
}

void VUtil::GetBinaryElement(const tagVARIANT& v, unsigned char* buffer, unsigned long offset, unsigned long length) {
    if (v.vt != (VT_ARRAY | VT_UI1) && v.vt != (VT_ARRAY | VT_I1)) {
        kel::ThrowInvalid(nullptr, "Element is not an array of (unsigned) char: %d", v.vt);
    }
    const auto available = static_cast<unsigned long>(GetArrayLength(v));
    if (offset > available || length > available - offset) throw KelInvalidParameterException(kel::elementUnreadable);
    if (length > 0 && !buffer) throw KelInvalidParameterException("GetBinaryElement: a buffer is needed");
    if (length > 0) std::memcpy(buffer, v.parray->elements + offset, length);
}

void VUtil::GetBinaryElement(const tagVARIANT& v, int i, unsigned char*& data, unsigned long& length) {
    if (v.vt != (VT_ARRAY | VT_VARIANT)) kel::ThrowInvalid(nullptr, "Not an array of variant: %d", v.vt);
    const tagVARIANT element = kel::ViewAt(v, i);
    if (element.vt != (VT_ARRAY | VT_UI1)) {
        kel::ThrowInvalid(nullptr, "Element is not an array of unsigned char: %d", element.vt);
    }
    const auto available = static_cast<unsigned long>(GetArrayLength(element));
    data = CopyBytes(element, available);
    length = available;
}

unsigned long VUtil::GetByteArray(const tagVARIANT& v, int i, unsigned char** data) {
    if (!data) throw KelInvalidParameterException("GetByteArray: a place for the bytes is needed");
    const tagVARIANT& element = kel::VariantAt(v, i, "Not an array of variant");
    if (element.vt != (VT_ARRAY | VT_UI1)) throw KelInvalidParameterException("Element is not an unsigned char array");
    const auto length = static_cast<unsigned long>(GetArrayLength(element));
    *data = CopyBytes(element, length);
    return length;
}

std::vector<unsigned char> VUtil::GetBytes(const tagVARIANT& v) {
    std::vector<unsigned char> bytes(static_cast<size_t>(GetArrayLength(v)));
    GetBinaryElement(v, bytes.data(), 0, bytes.size());
    return bytes;
}

std::vector<unsigned char> VUtil::GetBytesElement(const tagVARIANT& v, int i) {
    return GetBytes(kel::VariantAt(v, i, "Not an array of variant"));
}
