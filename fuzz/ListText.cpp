// A list file's text: the look at its limits, the parser behind it, and what is read from the tree.
// The input is the text; a zero byte ends it.
//
// * What the limits measure is what the parser builds, and never less.
// * A text beyond a limit is refused; one within them is read as the tree has it, item by item.
// * The parser reads no further than the padding that follows the text: that ends at a page which
//   nobody may touch. The parser comes ready built, so no sanitizer would see it.
// * Read twice, it gives the same; refused, it leaves the list as it was, or empty where the text
// was
//   well formed.
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "fuzz/Fuzz.h"
#include "skrib.h"
#include "unit/BuiltXml.h"
#include "unit/PathRules.h"
#include "vessa2/PluginConfigList.h"
#include "vessa2/PluginListOrigin.h"

const int vessa_fuzz::kPlants = 7;

namespace {

using vessa_fuzz::Expect;
using vessa_fuzz::ExpectSame;
using vessa_fuzz::Planted;

constexpr size_t kLongestText = 64 * 1024;
// The parser goes down a level for each level of the text: only so long ones are given to it
// without the limits.
constexpr size_t kLongestUnchecked = 8 * 1024;
constexpr size_t kPadding = 8;
const char* const kListPath = "/root/folder/tarnet.xml";

// The text and its padding in front of a page that cannot be read.
class GuardedText {
  public:
    GuardedText() {
        const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
        const size_t bytes = (kLongestText + kPadding + page - 1) / page * page;
        void* const memory =
            mmap(nullptr, bytes + page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        Expect(memory != MAP_FAILED, "no memory");
        end_ = static_cast<char*>(memory) + bytes;
        Expect(mprotect(end_, page, PROT_NONE) == 0, "no guard");
    }
    const char* Take(const std::string& text) {
        const size_t padding = Planted(7) ? 1 : kPadding;
        char* const start = end_ - padding - text.size();
        std::memcpy(start, text.data(), text.size());
        std::memset(start + text.size(), 0, padding);
        return start;
    }

  private:
    char* end_ = nullptr;
};

void ParseGuarded(const std::string& text, TiXmlDocument& document) {
    static GuardedText& guarded = *new GuardedText;
    document.Parse(guarded.Take(text), nullptr, TIXML_ENCODING_UNKNOWN);
}

bool IsTrue(const char* value) {
    return value != nullptr && std::strncmp(value, "true", 4) == 0;
}

std::string WithoutBlanks(const char* value) {
    std::string text = value == nullptr ? "" : value;
    text.erase(0, text.find_first_not_of(' '));
    if (!Planted(1)) text.erase(text.find_last_not_of(' ') + 1);
    return text;
}

// One item as a text, so that two can be compared and shown.
std::string Described(const std::string& fkey, const std::string& file, bool delay_load,
                      bool load_fkeys, const std::vector<std::string>& attributes) {
    std::string text = "fkey=" + fkey + " file=" + file + (delay_load ? " delayed" : "") +
                       (load_fkeys ? " announces" : "");
    for (const std::string& attribute : attributes) text += "\n " + attribute;
    return text + "\n";
}

std::string Described(const PluginConfigList& list) {
    std::string text;
    for (const PluginConfigItem& item : list) {
        std::vector<std::string> attributes;
        for (const PluginAttribute& attribute : item.Attributes())
            attributes.push_back(std::string(attribute.name) + "=" + std::string(attribute.value));
        text += Described(item.fkey(), item.file_path(), item.delay_load(), item.load_fkeys(),
                          attributes);
    }
    return text;
}

// What the tree declares, element by element.
std::string DescribedTree(const TiXmlElement& section) {
    std::string text;
    bool delay_load = false;
    for (const TiXmlElement* element = section.FirstChildElement("plugin"); element != nullptr;
         element = element->NextSiblingElement("plugin")) {
        const std::string fkey = WithoutBlanks(element->Attribute("fkey"));
        const std::string file = WithoutBlanks(element->Attribute("file"));
        if (fkey.empty() || (file.empty() && !Planted(2))) continue;
        const char* const delay = element->Attribute("delayload");
        if (delay != nullptr || Planted(3)) delay_load = IsTrue(delay);
        std::vector<std::string> attributes;
        for (const TiXmlAttribute* attribute = element->FirstAttribute(); attribute != nullptr;
             attribute = attribute->Next())
            attributes.push_back(std::string(attribute->Name()) + "=" + attribute->Value());
        text += Described(fkey, vessa_test::TranscribedModulePath(kListPath, file), delay_load,
                          IsTrue(element->Attribute("loadfkeys")), attributes);
    }
    return text;
}

void CheckLimits(const std::string& text) {
    const XmlExtent extent = MeasureXml(text);
    const vessa_test::Built built = vessa_test::Build(text);
    const int depth = built.extent.depth + (Planted(4) && built.extent.depth > 2 ? 1 : 0);
    const int attributes =
        built.extent.attributes + (Planted(5) && built.extent.attributes > 3 ? 1 : 0);
    Expect(extent.depth >= std::min(depth, kMaxXmlDepth + 1), "a depth that was not seen");
    Expect(extent.attributes >= std::min(attributes, kMaxXmlAttributes + 1),
           "attributes that were not seen");
    Expect(extent.nodes >= std::min(built.extent.nodes, kMaxXmlNodes + 1),
           "nodes that were not seen");
    if (built.error || CheckXmlLimits(text) != nullptr) return;
    Expect(extent.depth == depth, "another depth than the tree's");
    Expect(extent.attributes == attributes, "other attributes than the tree's");
    // Only a reference makes a text of blanks.
    if (text.find('&') == std::string::npos)
        Expect(extent.nodes == built.extent.nodes, "other nodes than the tree's");
}

void CheckItems(const std::string& text) {
    const bool within = CheckXmlLimits(text) == nullptr;
    TiXmlDocument document;
    if (within) ParseGuarded(text, document);
    const bool well_formed = within && !document.Error();
    const TiXmlElement* const section = well_formed ? document.FirstChildElement("vessa") : nullptr;
    std::string before;
    for (int round = 0; round < 2; ++round) {
        PluginListOrigin origin(kListPath);
        PluginConfigList list;
        Expect(list.ParseXmlString("<vessa><plugin fkey='before' file='f'/></vessa>"), "the first");
        const std::string first = Described(list);
        const bool read = list.ParseXmlString(text, &origin);
        Expect(read == (section != nullptr), "read although refused, or the other way round");
        const std::string expected = read          ? DescribedTree(*section)
                                     : well_formed ? std::string()
                                                   : (Planted(6) ? std::string() : first);
        ExpectSame(Described(list), expected, "the list");
        if (round == 1) ExpectSame(Described(list), before, "the list, read again");
        before = Described(list);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    vessa_fuzz::DropLog(SKRIB_LEVEL_OFF);
    std::string text(reinterpret_cast<const char*>(data), std::min(size, kLongestText));
    text = text.c_str();
    if (text.size() <= kLongestUnchecked || CheckXmlLimits(text) == nullptr) CheckLimits(text);
    CheckItems(text);
    return 0;
}
