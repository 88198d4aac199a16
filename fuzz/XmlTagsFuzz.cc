// The text of a registry file: the tag reader on anything at all. Input: the tag, a line feed, the text.
#include "registry/XmlTags.h"

#include "Require.h"

#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size) {
    const std::string input(reinterpret_cast<const char*>(bytes), size);
    const size_t tagEnd = std::min(input.find('\n'), size);
    const CStdStr tag(input.substr(0, tagEnd));
    const CStdStr xml(input.substr(std::min(tagEnd + 1, size)));
    const std::string openMark = "<" + tag + ">";
    const std::string closeMark = "</" + tag + ">";

    std::vector<CStdStr> values = {"left over"};
    const int result = getXMLTagValue(xml, tag, values);
    Require(result == 0 || result == 31, "a result is 0 or 31");

    // The values account for the text up to `end`, in order, each at the first open mark that is left.
    size_t end = 0;
    for (const CStdStr& value : values) {
        const size_t open = xml.find(openMark, end);
        Require(open != std::string::npos, "a value has an open mark");
        end = open + openMark.size();
        Require(xml.compare(end, value.size(), value) == 0, "a value starts behind its open mark");
        end += value.size();
        Require(xml.compare(end, closeMark.size(), closeMark) == 0, "a close mark ends a value");
        end += closeMark.size();
        Require((value + closeMark).find(closeMark) == value.size(), "it is the first close mark");
    }
    const size_t open = xml.find(openMark, end);
    if (result == 0) {
        Require(open == std::string::npos, "no value is left out");
    } else {
        Require(open != std::string::npos && xml.find(closeMark, open + openMark.size()) == std::string::npos,
                "a value that is not closed follows");
    }
    return 0;
}
