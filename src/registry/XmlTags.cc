#include "registry/XmlTags.h"

#include "foundation/Log.h"

#include <string>

namespace {

constexpr int tagNotClosed = 31;

}  // namespace

int getXMLTagValue(const CStdStr& xml, const CStdStr& tag, std::vector<CStdStr>& values) {
    values.clear();
    const std::string openMark = "<" + tag + ">";
    const std::string closeMark = "</" + tag + ">";

    for (size_t open = xml.find(openMark); open != std::string::npos;) {
        const size_t start = open + openMark.size();
        const size_t end = xml.find(closeMark, start);
        if (end == std::string::npos) {
            CBBLog::info("error parsing %s (xml length = %d) %s", closeMark.c_str(), static_cast<int>(xml.size()),
                         xml.c_str() + start);
            return tagNotClosed;
        }
        values.emplace_back(xml.data() + start, end - start);
        open = xml.find(openMark, end + closeMark.size());
    }
    return 0;
}

void AppendTag(CStdStr& text, const char* indent, const char* tag, std::string_view value) {
    text.append(indent).append("<").append(tag).append(">").append(value).append("</").append(tag).append(">\n");
}
