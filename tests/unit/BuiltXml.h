// BuiltXml.h: what the XML parser makes of a text, counted in its tree.
#ifndef VESSA_TESTS_UNIT_BUILTXML_H
#define VESSA_TESTS_UNIT_BUILTXML_H

#include <algorithm>
#include <string>
#include <vector>

#include "common/XmlLimits.h"

#ifndef TIXML_USE_STL
#  define TIXML_USE_STL
#endif
#include <tinyxml.h>

namespace vessa_test {

// What the parser really made of a text.
struct Built {
    XmlExtent extent;
    bool error = false;
};

inline int CountAttributes(const TiXmlElement& element) {
    int count = 0;
    for (const TiXmlAttribute* at = element.FirstAttribute(); at != nullptr; at = at->Next())
        ++count;
    return count;
}

inline Built Build(const std::string& text) {
    // The parser may look past a cut character at the end.
    const std::string padded = text + std::string(8, '\0');
    TiXmlDocument document;
    document.Parse(padded.c_str(), nullptr, TIXML_ENCODING_UNKNOWN);
    Built built;
    built.error = document.Error();
    struct Level {
        const TiXmlNode* node;
        int depth;
    };
    std::vector<Level> left = {{&document, 0}};
    while (!left.empty()) {
        const Level level = left.back();
        left.pop_back();
        if (level.depth > 0) ++built.extent.nodes;
        if (const TiXmlElement* const element = level.node->ToElement()) {
            built.extent.depth = std::max(built.extent.depth, level.depth);
            built.extent.attributes = std::max(built.extent.attributes, CountAttributes(*element));
        }
        for (const TiXmlNode* child = level.node->FirstChild(); child != nullptr;
             child = child->NextSibling())
            left.push_back({child, level.depth + 1});
    }
    return built;
}

}  // namespace vessa_test

#endif
