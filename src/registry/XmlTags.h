// The lines of the registry's files, and their reader: a plain text search for "<tag>" and "</tag>", with no escapes,
// no attributes and no nesting of a tag in itself, for the files are written in exactly that shape.
#pragma once

#include "foundation/StdString.h"

#include <string_view>
#include <vector>

// Replaces `values` by the texts between each "<tag>" and the next "</tag>", in the order of `xml`, neither trimmed nor
// unescaped. Returns 0, also when there is none; 31 when a value is not closed, which is logged at info level: `values`
// then holds those before it. Safe in any thread.
int getXMLTagValue(const CStdStr& xml, const CStdStr& tag, std::vector<CStdStr>& values);

// Appends a line with one value: `indent`, "<tag>", the value as it is, "</tag>".
void AppendTag(CStdStr& text, const char* indent, const char* tag, std::string_view value);
