#include "rpc/values/Variant.h"

#include "rpc/values/SafeArray.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <new>

namespace {

constexpr uint64_t maxArrayBytes = 1u << 30;
constexpr size_t smallBlock = 1024;

// 0 for what cannot be an element.
uint16_t ElementSize(VARTYPE type) {
    if (type == VT_BSTR) return sizeof(BSTR);
    if (type == VT_VARIANT) return sizeof(tagVARIANT);
    return kel::NumberSize(type);
}

// Memory that is all zero; null when there is none. The C library keeps small blocks at hand for each thread, but gives
// them out by malloc only, while calloc need not clear what is fresh from the system.
void* AllocateZeroed(size_t bytes) {
    if (bytes > smallBlock) return std::calloc(1, bytes);
    void* const block = std::malloc(bytes);
    if (block) std::memset(block, 0, bytes);
    return block;
}

// False when there is no memory. Null comes back for null, which is a value too, so it does not tell.
bool CopyString(BSTR from, BSTR& to) {
    to = SysAllocString(from);
    return to || !from;
}

void ClearElements(SAFEARRAY& array, uint32_t first, uint32_t end) {
    if (array.elementType == VT_BSTR) {
        for (auto* text = reinterpret_cast<BSTR*>(array.elements) + first; first < end; ++first) SysFreeString(*text++);
    } else if (array.elementType == VT_VARIANT) {
        for (auto* value = reinterpret_cast<tagVARIANT*>(array.elements) + first; first < end; ++first) {
            VariantClear(value++);
        }
    }
}

SAFEARRAY* CopyArray(const SAFEARRAY& from);

// Copies into `to`, which holds nothing yet; empty after a failure.
HRESULT CopyInto(tagVARIANT& to, const tagVARIANT& from) {
    to = from;
    if (from.vt == VT_BSTR) {
        if (CopyString(from.bstrVal, to.bstrVal)) return S_OK;
    } else if ((from.vt & VT_ARRAY) && from.parray) {
        to.parray = CopyArray(*from.parray);
        if (to.parray) return S_OK;
    } else {
        return S_OK;
    }
    to = tagVARIANT{};
    return E_OUTOFMEMORY;
}

// Null when there is no memory.
SAFEARRAY* CopyArray(const SAFEARRAY& from) {
    const SAFEARRAYBOUND bound{from.count, from.lowerBound};
    SAFEARRAY* copy = SafeArrayCreate(from.elementType, 1, &bound);
    if (!copy) return nullptr;
    bool complete = true;
    if (from.elementType == VT_BSTR) {
        const auto* source = reinterpret_cast<const BSTR*>(from.elements);
        auto* target = reinterpret_cast<BSTR*>(copy->elements);
        for (uint32_t i = 0; i < from.count && complete; ++i) complete = CopyString(source[i], target[i]);
    } else if (from.elementType == VT_VARIANT) {
        const auto* source = reinterpret_cast<const tagVARIANT*>(from.elements);
        auto* target = reinterpret_cast<tagVARIANT*>(copy->elements);
        for (uint32_t i = 0; i < from.count && complete; ++i) complete = CopyInto(target[i], source[i]) == S_OK;
    } else {
        std::memcpy(copy->elements, from.elements, size_t{from.count} * from.elementSize);
    }
    if (complete) return copy;
    SafeArrayDestroy(copy);
    return nullptr;
}

// Makes room for `count` elements, which may be fewer than there are now.
bool Reserve(SAFEARRAY& array, uint32_t count) {
    if (count <= array.capacity) return true;
    const uint64_t mostElements = maxArrayBytes / array.elementSize;
    if (count > mostElements) return false;
    const uint64_t capacity = std::max<uint64_t>(count, std::min(array.capacity + array.capacity / 2, mostElements));
    const bool isInline = array.elements == array.inlineElements();
    auto* block = static_cast<unsigned char*>(
        std::realloc(isInline ? nullptr : array.elements, static_cast<size_t>(capacity * array.elementSize)));
    if (!block) return false;
    if (isInline) std::memcpy(block, array.elements, size_t{array.count} * array.elementSize);
    array.elements = block;
    array.capacity = capacity;
    return true;
}

}  // namespace

void VariantInit(tagVARIANT* v) {
    if (v) *v = tagVARIANT{};
}

HRESULT VariantClear(tagVARIANT* v) {
    if (!v) return E_INVALIDARG;
    if (v->vt == VT_BSTR) {
        SysFreeString(v->bstrVal);
    } else if (v->vt & VT_ARRAY) {
        const HRESULT result = SafeArrayDestroy(v->parray);
        if (result != S_OK) return result;
    }
    *v = tagVARIANT{};
    return S_OK;
}

HRESULT VariantCopy(tagVARIANT* to, const tagVARIANT* from) {
    if (!to || !from) return E_INVALIDARG;
    if (to == from) return S_OK;
    tagVARIANT copy;
    HRESULT result = CopyInto(copy, *from);
    if (result != S_OK) return result;
    result = VariantClear(to);
    if (result != S_OK) {
        VariantClear(&copy);
        return result;
    }
    *to = copy;
    return S_OK;
}

BSTR SysAllocString(const char* text) { return text ? SysAllocStringLen(text, std::strlen(text)) : nullptr; }

BSTR SysAllocStringLen(const char* text, size_t length) {
    if (!text) return nullptr;
    auto* copy = static_cast<char*>(std::malloc(length + 1));
    if (!copy) return nullptr;
    std::memcpy(copy, text, length);
    copy[length] = '\0';
    return copy;
}

void SysFreeString(BSTR text) { std::free(text); }

size_t SysStringLen(const char* text) { return text ? std::strlen(text) : 0; }

SAFEARRAY* SafeArrayCreate(VARTYPE elementType, unsigned dimensions, const SAFEARRAYBOUND* bound) {
    const uint16_t size = ElementSize(elementType);
    if (size == 0 || dimensions != 1 || !bound || uint64_t{bound->cElements} * size > maxArrayBytes) return nullptr;
    void* block = AllocateZeroed(sizeof(SAFEARRAY) + size_t{bound->cElements} * size);
    if (!block) return nullptr;
    auto* array = new (block) SAFEARRAY;
    array->elementType = elementType;
    array->elementSize = size;
    array->count = bound->cElements;
    array->lowerBound = bound->lLbound;
    array->accesses = 0;
    array->elements = array->inlineElements();
    array->capacity = bound->cElements;
    return array;
}

HRESULT SafeArrayDestroy(SAFEARRAY* array) {
    if (!array) return S_OK;
    if (array->accesses != 0) return DISP_E_ARRAYISLOCKED;
    ClearElements(*array, 0, array->count);
    if (array->elements != array->inlineElements()) std::free(array->elements);
    std::free(array);
    return S_OK;
}

HRESULT SafeArrayRedim(SAFEARRAY* array, const SAFEARRAYBOUND* bound) {
    if (!array || !bound) return E_INVALIDARG;
    if (array->accesses != 0) return DISP_E_ARRAYISLOCKED;
    const uint32_t count = bound->cElements;
    if (!Reserve(*array, count)) return E_OUTOFMEMORY;
    if (count < array->count) {
        ClearElements(*array, count, array->count);
    } else {
        std::memset(array->elements + size_t{array->count} * array->elementSize, 0,
                    size_t{count - array->count} * array->elementSize);
    }
    array->count = count;
    array->lowerBound = bound->lLbound;
    return S_OK;
}

HRESULT SafeArrayGetLBound(const SAFEARRAY* array, unsigned dimension, long* bound) {
    if (!array || dimension != 1 || !bound) return E_INVALIDARG;
    *bound = array->lowerBound;
    return S_OK;
}

HRESULT SafeArrayGetUBound(const SAFEARRAY* array, unsigned dimension, long* bound) {
    if (!array || dimension != 1 || !bound) return E_INVALIDARG;
    *bound = long{array->lowerBound} + static_cast<long>(array->count) - 1;
    return S_OK;
}

HRESULT SafeArrayGetVartype(const SAFEARRAY* array, VARTYPE* elementType) {
    if (!array || !elementType) return E_INVALIDARG;
    *elementType = array->elementType;
    return S_OK;
}

HRESULT SafeArrayGetElement(const SAFEARRAY* array, long* index, void* out) {
    if (!array || !index || !out) return E_INVALIDARG;
    const unsigned char* element = kel::ElementAt(array, *index);
    if (!element) return DISP_E_BADINDEX;
    if (array->elementType == VT_BSTR) {
        const bool copied = CopyString(*reinterpret_cast<const BSTR*>(element), *static_cast<BSTR*>(out));
        return copied ? S_OK : E_OUTOFMEMORY;
    }
    if (array->elementType == VT_VARIANT) {
        return CopyInto(*static_cast<tagVARIANT*>(out), *reinterpret_cast<const tagVARIANT*>(element));
    }
    std::memcpy(out, element, array->elementSize);
    return S_OK;
}

HRESULT SafeArrayPutElement(SAFEARRAY* array, long* index, void* in) {
    if (!array || !index) return E_INVALIDARG;
    unsigned char* element = kel::ElementAt(array, *index);
    if (!element) return DISP_E_BADINDEX;
    if (array->elementType == VT_BSTR) {
        BSTR copy = nullptr;
        if (!CopyString(static_cast<BSTR>(in), copy)) return E_OUTOFMEMORY;
        SysFreeString(*reinterpret_cast<BSTR*>(element));
        *reinterpret_cast<BSTR*>(element) = copy;
        return S_OK;
    }
    if (!in) return E_INVALIDARG;
    if (array->elementType == VT_VARIANT) {
        return VariantCopy(reinterpret_cast<tagVARIANT*>(element), static_cast<const tagVARIANT*>(in));
    }
    std::memmove(element, in, array->elementSize);  // `in` may be the element itself
    return S_OK;
}

HRESULT SafeArrayAccessData(SAFEARRAY* array, void** data) {
    if (!array || !data) return E_INVALIDARG;
    array->accesses.fetch_add(1);
    *data = array->elements;
    return S_OK;
}

HRESULT SafeArrayUnaccessData(SAFEARRAY* array) {
    if (!array || array->accesses == 0) return E_INVALIDARG;
    array->accesses.fetch_sub(1);
    return S_OK;
}
