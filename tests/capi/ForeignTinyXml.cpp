// An application with an XML parser of its own whose names are those of the library's. It must
// not be taken for the library's, nor disturb it.
#include <cstdio>
#include <cstdlib>

#include "TestPlatform.h"
#include "vessa/vessa.h"

class TiXmlParsingData;
enum TiXmlEncoding { TIXML_ENCODING_UNKNOWN, TIXML_ENCODING_UTF8, TIXML_ENCODING_LEGACY };

namespace {
int foreign_calls = 0;
}

class PROGRAM_EXPORT TiXmlBase {
  public:
    virtual ~TiXmlBase();
    static bool IsWhiteSpaceCondensed();
};
class PROGRAM_EXPORT TiXmlElement : public TiXmlBase {};
class PROGRAM_EXPORT TiXmlNode : public TiXmlBase {
  public:
    const TiXmlElement* FirstChildElement(const char* name) const;
};
class PROGRAM_EXPORT TiXmlDocument : public TiXmlNode {
  public:
    TiXmlDocument();
    ~TiXmlDocument() override;
    virtual const char* Parse(const char* text, TiXmlParsingData* data, TiXmlEncoding encoding);
};

TiXmlBase::~TiXmlBase() {
    ++foreign_calls;
}
bool TiXmlBase::IsWhiteSpaceCondensed() {
    return ++foreign_calls > 0;
}
const TiXmlElement* TiXmlNode::FirstChildElement(const char*) const {
    ++foreign_calls;
    return nullptr;
}
TiXmlDocument::TiXmlDocument() {
    ++foreign_calls;
}
TiXmlDocument::~TiXmlDocument() {
    ++foreign_calls;
}
const char* TiXmlDocument::Parse(const char*, TiXmlParsingData*, TiXmlEncoding) {
    ++foreign_calls;
    return nullptr;
}

int main() {
    void* instance = nullptr;
    const int started = VESSA_Init();
    const int created = VESSA_CreateInstance("a", &instance, nullptr);
    VESSA_DestroyInstance(instance, nullptr);
    VESSA_Uninit();
    if (started != VESSA_OK || created != VESSA_OK || foreign_calls != 0) {
        std::fprintf(stderr, "started %d, created %d, foreign calls %d\n", started, created,
                     foreign_calls);
        return 1;
    }
    // The application's own still is its own.
    {
        TiXmlDocument document;
        document.Parse("<a/>", nullptr, TIXML_ENCODING_UNKNOWN);
        if (document.FirstChildElement("a") != nullptr) return 1;
    }
    return foreign_calls >= 4 ? 0 : 1;
}
