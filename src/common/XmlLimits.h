// A look at an XML text before the parser gets it. The parser recurses for each level of
// nesting and searches all former attributes for each new one, so a small hostile text could
// exhaust the stack or hold a thread for minutes.
//
// One linear pass with the parser's own idea of what an element is, quirks included, up to
// where the parser stops. What the parser accepts is refused here for one of the two limits
// only.
#pragma once

#include <string>

constexpr int kMaxXmlDepth = 256;
constexpr int kMaxXmlAttributes = 512;

// Null: within the limits. Otherwise the reason, a text that lives for ever.
const char* CheckXmlLimits(const std::string& text);

// The deepest nesting of elements and the largest number of attributes on one that the parser
// comes to, each up to one more than its limit.
struct XmlExtent {
    int depth = 0;
    int attributes = 0;
};
XmlExtent MeasureXml(const std::string& text);
