// A look at an XML text before the parser gets it. The parser recurses for each level of
// nesting, searches all former attributes for each new one, and makes seventy bytes and more of one
// byte where nodes follow each other closely, so a small hostile text could exhaust the stack,
// hold a thread for minutes, or take a hundred times its size of memory.
//
// One linear pass with the parser's own idea of what an element is, quirks included, up to
// where the parser stops. What the parser accepts is refused here for one of the limits only.
#pragma once

#include <string>

constexpr int kMaxXmlDepth = 256;
constexpr int kMaxXmlAttributes = 512;
// Some 50 MiB of memory at the most. No list has so many that is below 1 MiB and declares plug-ins.
constexpr int kMaxXmlNodes = 131072;

// Null: within the limits. Otherwise the reason, a text that lives for ever.
const char* CheckXmlLimits(const std::string& text);

// The deepest nesting of elements and the largest number of attributes on one that the parser
// comes to, and how many nodes (elements, texts, comments and all others), each up to one more
// than its limit. A text of nothing but references to blanks counts, although it makes no node.
struct XmlExtent {
    int depth = 0;
    int attributes = 0;
    int nodes = 0;
};
XmlExtent MeasureXml(const std::string& text);
