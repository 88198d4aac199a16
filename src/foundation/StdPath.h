// CStdPath: a path as text. It is not looked up, resolved or made canonical; "/" separates its components.
#pragma once

#include "foundation/StdString.h"

class CStdPath : public CStdStr {
public:
    using CStdStr::CStdStr;
    CStdPath() = default;
    CStdPath(const CStdStr& text) : CStdStr(text) {}

    // Appends a component and returns the path itself. A "/" goes between the two when both have text and neither
    // brings one: "a" and "b" give "a/b", and so do "a/" and "b", and "a" and "/b"; "a/" and "/b" give "a//b".
    CStdPath& AppendPath(CStdStr component);
};
