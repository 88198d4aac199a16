#include "foundation/StdPath.h"

CStdPath& CStdPath::AppendPath(CStdStr component) {
    if (!empty() && !component.empty() && back() != '/' && component.front() != '/') push_back('/');
    append(component);
    return *this;
}
