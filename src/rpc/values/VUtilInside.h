// What the rooms of VUtil share: reading in place, without copying values, and the text of a single value.
#pragma once

#include "foundation/StdString.h"
#include "rpc/values/SafeArray.h"
#include "rpc/values/Variant.h"

namespace kel {

constexpr char elementUnreadable[] = "SafeArrayGetElement failed in VUtil::GetElement";

// Throws KelInvalidParameterException with the formatted text behind `context` and ": ", or alone for a null `context`.
[[noreturn]] void ThrowInvalid(const char* context, const char* format, ...) __attribute__((format(printf, 2, 3)));

// Element `i` of an array of variants, in place. Throws for another type with `wrongArray`, else with `unreadable`.
const tagVARIANT& VariantAt(const tagVARIANT& v, int i, const char* wrongArray,
                            const char* unreadable = elementUnreadable);

// The text of element `i` of an array of texts or variants, in place; an empty element is "". Throws as
// VUtil::GetStringElement does.
const char* TextAt(const tagVARIANT& v, int i);

// Element `index` of an array of any type as a variant that owns nothing: valid as long as the array stays as it is,
// and never to be cleared.
tagVARIANT ViewAt(const tagVARIANT& v, long index);

// Appends an integer or floating-point value in decimal; false when `v` is none.
bool AppendNumber(const tagVARIANT& v, CStdStr& out);

// Appends a date as year-month-day hour:minute:second in UTC; nothing when the year has more than four characters.
void AppendDate(DATE date, CStdStr& out);

// Puts `value` in the place of what `slot` holds and takes it over; false, taking nothing, when there is no slot or its
// array is being accessed.
inline bool Replace(tagVARIANT* slot, ScopedVariant& value) {
    if (!slot || VariantClear(slot) != S_OK) return false;
    *slot = value.release();
    return true;
}

}  // namespace kel
