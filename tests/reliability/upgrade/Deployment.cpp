#include "reliability/upgrade/Deployment.h"

#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <stdexcept>

#include "support/ListFile.h"
#include "vessa/vessa.h"

namespace upgrade {
namespace {

namespace fs = std::filesystem;

// In the world's folder: the plug-in root, and what is kept outside of it.
constexpr char kRoot[] = "root/";
constexpr char kKept[] = "kept/";

using ReleaseOf = int (*)();

}  // namespace

Deployment::Deployment(State state, Form form) : state_(state) {
    modules_before_ = vessa_test::Runtime::Census().modules;
    LayOut(form);
    coordinator_.SetPluginRoot(dir_.Path("root"));
    coordinator_.SetConfigFilename("tarnet.xml");
    if (!coordinator_.Run()) throw std::runtime_error("the library does not start");
    if (state == State::kInUse) {
        int plugin_error = 0;
        coordinator_.provider().CreateInstance("codec", live_, plugin_error);
        if (live_ == nullptr) throw std::runtime_error("no instance of release 1");
    }
    log_.Clear();
}

Deployment::~Deployment() {
    LastInstanceGoes();
    coordinator_.Shutdown();
}

// The empty list at "z" is there so that "tarnet.xml" is never the last one.
void Deployment::LayOut(Form form) {
    dir_.Write(std::string(kRoot) + "z/tarnet.xml", List(""));
    for (const int release : {1, 2}) {
        const std::string folder = kKept + std::to_string(release) + "/";
        dir_.CopyFile(Release(release), folder + "codec.so");
        dir_.Write(folder + "tarnet.xml", FirstList());
    }
    if (form == Form::kLinkedFolder) return Link("1", "current");
    if (form == Form::kLinkedList)
        Link("1/tarnet.xml", "tarnet.xml");
    else
        Rename("tarnet.xml", FirstList());
    if (form == Form::kLinkedModule)
        Link("1/codec.so", "codec.so");
    else
        dir_.CopyFile(Release(1), std::string(kRoot) + "codec.so");
}

std::string Deployment::Release(int release) {
    return RELEASE_FOLDER "/upgrade_release_" + std::to_string(release) + ".so";
}

std::string Deployment::List(const std::string& plugins) const {
    vessa_test::ListFile list;
    std::istringstream words(plugins);
    for (std::string word; words >> word;) {
        const size_t equals = word.find('=');
        list.Plugin(word.substr(0, equals), word.substr(equals + 1),
                    {{"delayload", state_ == State::kNotLoaded ? "true" : "false"}});
    }
    return list.Text();
}

std::string Deployment::Bytes(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    if (!file) throw std::runtime_error("no file " + path);
    return {std::istreambuf_iterator<char>(file), {}};
}

void Deployment::WriteOver(const std::string& name, const std::string& text) {
    dir_.Write(kRoot + name, text);
}

void Deployment::CutTo(const std::string& name, size_t size) {
    fs::resize_file(dir_.Path(kRoot + name), size);
}

void Deployment::Rename(const std::string& name, const std::string& text) {
    dir_.WriteByRename(kRoot + name, text);
}

void Deployment::Link(const std::string& target, const std::string& name) {
    const std::string beside = kKept + std::string("new_link");
    dir_.MakeLink(dir_.Path(kKept + target), beside);
    dir_.Rename(beside, kRoot + name);
}

void Deployment::Remove(const std::string& name) {
    dir_.Remove(kRoot + name);
}

void Deployment::Keep(const std::string& name, const std::string& text) {
    dir_.Write(kKept + name, text);
}

void Deployment::Scan() {
    if (!runtime_.Tick()) throw std::runtime_error("the scanning thread has ended");
}

void Deployment::LastInstanceGoes() {
    if (live_ == nullptr) return;
    int plugin_error = 0;
    coordinator_.provider().DestroyInstance(live_, plugin_error);
    live_ = nullptr;
}

std::string Deployment::Observe(const std::string& key) {
    const bool has_modules = vessa_test::Runtime::Census().modules > modules_before_;
    PluginProvider& provider = coordinator_.provider();
    void* instance = nullptr;
    int plugin_error = 0;
    switch (const int code = provider.CreateInstance(key, instance, plugin_error)) {
        case VESSA_OK:
            break;
        case VESSA_ERR_NOT_REGISTERED:
            if (key != "codec") return "absent";
            return has_modules ? "going" : "gone";
        case VESSA_ERR_NO_MODULE_FILE:
            return "no file";
        case VESSA_ERR_MODULE_LOAD:
            return "not loadable";
        default:
            return "result " + std::to_string(code);
    }
    void* iface = nullptr;
    provider.QueryInterface(instance, "release", iface, plugin_error);
    const std::string served =
        iface != nullptr ? std::to_string(reinterpret_cast<ReleaseOf>(iface)()) : "no interface";
    provider.DestroyInstance(instance, plugin_error);
    return served;
}

std::string Deployment::LiveSurprise() {
    if (live_ == nullptr) return "";
    void* iface = nullptr;
    int plugin_error = 0;
    coordinator_.provider().QueryInterface(live_, "release", iface, plugin_error);
    if (iface == nullptr) return "the live instance has lost its interface";
    const int release = reinterpret_cast<ReleaseOf>(iface)();
    return release == 1 ? "" : "the live instance is release " + std::to_string(release);
}

std::vector<vessa_test::LogRecord> Deployment::Log() const {
    std::vector<vessa_test::LogRecord> records;
    for (vessa_test::LogRecord& record : log_.Records()) {
        if (record.text.rfind("fkey not found in plugin collection", 0) == 0) continue;
        if (record.text.rfind("plugin already unregistered, fkey", 0) == 0) continue;
        records.push_back(std::move(record));
    }
    return records;
}

}  // namespace upgrade
