#include "host/codecs.h"

#include <fmt/format.h>

#include <algorithm>
#include <optional>
#include <set>
#include <sstream>

namespace host {
namespace {

struct ResultName {
    int number;
    const char* name;
    const char* meaning;
};

#define HOST_RESULT_NAME(name, number, meaning) {number, #name, meaning},
constexpr ResultName kVessaResults[] = {VESSA_RESULT_LIST(HOST_RESULT_NAME)};
constexpr ResultName kCodecResults[] = {CODEC_RESULT_LIST(HOST_RESULT_NAME)};
#undef HOST_RESULT_NAME

template <typename Table>
std::string TextFrom(const Table& table, int result) {
    for (const ResultName& entry : table) {
        if (entry.number == result) return fmt::format("{} ({})", entry.name, entry.meaning);
    }
    return fmt::format("{}", result);
}

std::string ErrorText(const std::string& what, int result, int plugin_error) {
    if (result == VESSA_FAILED && plugin_error != 0) {
        return fmt::format("{}: VESSA_FAILED, the plug-in says {}", what,
                           CodecResultText(plugin_error));
    }
    return fmt::format("{}: {}", what, ResultText(result));
}

std::optional<std::string> Attribute(const std::string& fkey, const char* name) {
    unsigned int size = 0;
    if (VESSA_QueryConfigAttribute(fkey.c_str(), name, nullptr, &size) != VESSA_OK) return {};
    // The list file may change between the two calls: a longer value is asked for again.
    for (;;) {
        std::string value(std::size_t{size} + 1, '\0');
        unsigned int length = size + 1;
        const int result = VESSA_QueryConfigAttribute(fkey.c_str(), name, value.data(), &length);
        if (result == VESSA_OK) {
            value.resize(length);
            return value;
        }
        if (result != VESSA_ERR_BUFFER_TOO_SMALL) return {};
        size = length;
    }
}

std::string LastPart(const std::string& path) {
    return path.substr(path.find_last_of("/\\") + 1);
}

std::vector<std::string> DeclaredFkeys() {
    char** fkeys = nullptr;
    unsigned int count = 0;
    const int result = VESSA_QueryAllFkeys(&fkeys, &count);
    std::vector<std::string> declared;
    if (result == VESSA_OK) declared.assign(fkeys, fkeys + count);
    if (fkeys != nullptr) VESSA_ReleaseAllFkeys(fkeys, count);
    if (result != VESSA_OK) throw LibraryError("asking for the configured keys", result, 0);
    return declared;
}

}  // namespace

LibraryError::LibraryError(const std::string& what, int result, int plugin_error)
    : std::runtime_error(ErrorText(what, result, plugin_error)), result_(result) {}

std::string ResultText(int result) {
    return TextFrom(kVessaResults, result);
}

std::string CodecResultText(int result) {
    return TextFrom(kCodecResults, result);
}

Library::Library() {
    const int result = VESSA_Init();
    if (result != VESSA_OK) throw LibraryError("starting the plug-in library", result, 0);
}

Library::~Library() {
    VESSA_Uninit();
}

std::vector<Key> ConfiguredKeys() {
    std::vector<Key> keys;
    std::set<std::string> known;
    const auto add = [&](const std::string& fkey, const std::string& module, bool announced) {
        if (known.insert(fkey).second) keys.push_back({fkey, module, announced});
    };
    const std::vector<std::string> declared = DeclaredFkeys();
    for (const std::string& fkey : declared) {
        // Without the attribute the key was removed since the list was made.
        const std::optional<std::string> file = Attribute(fkey, "file");
        if (!file) continue;
        const std::string module = LastPart(*file);
        add(fkey, module, false);
        std::istringstream announces(Attribute(fkey, "announces").value_or(""));
        for (std::string further; announces >> further;) {
            const bool own = std::find(declared.begin(), declared.end(), further) != declared.end();
            if (!own) add(further, module, true);
        }
    }
    return keys;
}

Instance::Instance(const std::string& fkey) {
    void* instance = nullptr;
    int plugin_error = 0;
    const int result = VESSA_CreateInstance(fkey.c_str(), &instance, &plugin_error);
    if (result != VESSA_OK) throw LibraryError(fkey, result, plugin_error);
    instance_.reset(instance);
}

codec_stream* Instance::FindStream() const {
    void* stream = nullptr;
    const int result = VESSA_QueryInterface(instance_.get(), CODEC_STREAM_IKEY, &stream, nullptr);
    return result == VESSA_OK ? static_cast<codec_stream*>(stream) : nullptr;
}

}  // namespace host
