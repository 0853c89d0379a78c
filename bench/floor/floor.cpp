// What each row costs without any library: the same module through its bare table of operations,
// the system's own calls, the parser alone.
#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <tinyxml.h>
#include <unistd.h>
#include <vessa/tarnet.h>

#include <cstring>
#include <stdexcept>

#include "common/CreateRows.h"
#include "common/Folder.h"
#include "common/Lists.h"

namespace bench {
namespace {

const tarnet_export_table_v2& Table() {
    static void* const module = dlopen(BENCH_MODULE_FILE, RTLD_NOW | RTLD_LOCAL);
    if (module == nullptr) throw std::runtime_error(dlerror());
    static const auto entry = reinterpret_cast<tarnet_entry_v2_t>(dlsym(module, TARNET_ENTRY_V2));
    return *entry();
}

// The application holds the table of every key, so that the key does not matter.
class CreateHost {
  public:
    explicit CreateHost(size_t) : table_(Table()), key_(Key(0)) {}
    void* Create(size_t) {
        void* instance = nullptr;
        table_.CreateInstance_V2(key_.c_str(), &instance);
        return instance;
    }
    void Destroy(size_t, void* instance) { table_.DestroyInstance(instance); }

  private:
    const tarnet_export_table_v2& table_;
    std::string key_;
};

std::vector<void*>& Instances(size_t live) {
    static std::vector<void*>& instances = *new std::vector<void*>;
    while (instances.size() < live) {
        void* instance = nullptr;
        Table().CreateInstance_V2("", &instance);
        instances.push_back(instance);
    }
    return instances;
}

void PrepareQuery(const benchmark::State& state) {
    Instances(static_cast<size_t>(state.range(0)));
}

void RunQuery(benchmark::State& state) {
    const auto live = static_cast<size_t>(state.range(0));
    const std::vector<void*>& instances = Instances(live);
    const RandomSequence order(live);
    const tarnet_export_table_v2& table = Table();
    size_t at = static_cast<size_t>(state.thread_index()) * 4099;
    for (auto _ : state) {
        void* iface = nullptr;
        table.QueryInterface(instances[order.at(at++)], "bench.iface.decode", &iface);
        if (iface == nullptr) state.SkipWithError("no interface");
        benchmark::DoNotOptimize(iface);
    }
}

// The same file again and again; the row of a contestant is over copies that are loaded once.
void RunLoadCycle(benchmark::State& state) {
    for (auto _ : state) {
        void* const module = dlopen(BENCH_OTHER_MODULE_FILE, RTLD_NOW | RTLD_LOCAL);
        if (module == nullptr || dlsym(module, TARNET_ENTRY_V2) == nullptr)
            state.SkipWithError("not loaded");
        if (module != nullptr) dlclose(module);
    }
}

struct Stream {
    DIR* stream;
    ~Stream() { closedir(stream); }
};

// Breadth first. With with_stat every entry except "." and ".." is examined, as a scan that looks
// for changes must; without it the system's word for what an entry is must do. Calls found(path)
// for each list file.
template <class Found>
size_t Walk(const std::string& root, bool with_stat, Found found) {
    std::vector<std::string> folders{root};
    size_t entries = 0;
    for (size_t next = 0; next < folders.size(); ++next) {
        const std::string folder = folders[next];
        const Stream opened{opendir(folder.c_str())};
        if (opened.stream == nullptr) throw std::runtime_error("cannot read " + folder);
        const int descriptor = dirfd(opened.stream);
        while (const dirent* const entry = readdir(opened.stream)) {
            const char* const name = entry->d_name;
            if (std::strcmp(name, ".") == 0 || std::strcmp(name, "..") == 0) continue;
            ++entries;
            bool is_folder = entry->d_type == DT_DIR;
            if (with_stat) {
                struct stat status {};
                if (fstatat(descriptor, name, &status, 0) != 0) continue;
                is_folder = S_ISDIR(status.st_mode);
            }
            if (is_folder)
                folders.push_back(folder + "/" + name);
            else if (std::strcmp(name, "tarnet.xml") == 0)
                found(folder + "/" + name);
        }
    }
    return entries;
}

// The number of plug-in elements.
size_t ReadAndParse(const std::string& path) {
    const int file = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    struct stat status {};
    if (file < 0 || fstat(file, &status) != 0) throw std::runtime_error("cannot open " + path);
    std::string text(static_cast<size_t>(status.st_size), '\0');
    const ssize_t got = read(file, &text[0], text.size());
    close(file);
    if (got != status.st_size) throw std::runtime_error("cannot read " + path);
    TiXmlDocument document;
    document.Parse(text.c_str(), nullptr, TIXML_ENCODING_UNKNOWN);
    size_t elements = 0;
    const TiXmlElement* const section = document.FirstChildElement("vessa");
    for (const TiXmlElement* element = section != nullptr ? section->FirstChildElement("plugin")
                                                          : nullptr;
         element != nullptr; element = element->NextSiblingElement("plugin"))
        ++elements;
    return elements;
}

void RunStart(benchmark::State& state, Shape shape) {
    const auto plugins = static_cast<size_t>(state.range(0));
    const std::string root = RootWith(shape, plugins);
    WarmUp(root);
    for (auto _ : state) {
        const auto start = Clock::now();
        size_t elements = 0;
        Walk(root, false, [&](const std::string& list) { elements += ReadAndParse(list); });
        state.SetIterationTime(SecondsSince(start));
        if (elements != plugins) state.SkipWithError("not all read");
    }
}

void RunWalk(benchmark::State& state, Shape shape) {
    const auto plugins = static_cast<size_t>(state.range(0));
    const std::string root = RootWith(shape, plugins);
    size_t entries = 0;
    WarmUp(root);
    for (auto _ : state) {
        size_t lists = 0;
        const auto start = Clock::now();
        entries = Walk(root, true, [&](const std::string&) { ++lists; });
        state.SetIterationTime(SecondsSince(start));
        if (lists != plugins) state.SkipWithError("not all found");
    }
    state.counters["entries"] = static_cast<double>(entries);
}

}  // namespace

void RegisterRows() {
    CreateLimits limits;
    limits.keys = {1};
    CreateRows<CreateHost>::Register("floor", limits);
    for (const int live : {8, 100000}) {
        for (const int threads : {1, 2}) {
            benchmark::RegisterBenchmark(RowName("floor", "query").c_str(), RunQuery)
                ->ArgName("live")
                ->Arg(live)
                ->Threads(threads)
                ->UseRealTime()
                ->Setup(PrepareQuery);
        }
    }
    benchmark::RegisterBenchmark(RowName("floor", "load_cycle").c_str(), RunLoadCycle)
        ->UseRealTime();
    ForEachStart([](Shape shape, int plugins, int iterations) {
        benchmark::RegisterBenchmark(RowName("floor", StartRow(shape)).c_str(), RunStart, shape)
            ->ArgName("plugins")
            ->Arg(plugins)
            ->Iterations(iterations)
            ->UseManualTime();
    });
    for (const Shape shape : {Shape::kEach, Shape::kDeep}) {
        benchmark::RegisterBenchmark(
            RowName("floor", std::string("rescan/") + NameOf(shape)).c_str(), RunWalk, shape)
            ->ArgName("plugins")
            ->Arg(10000)
            ->Iterations(5)
            ->UseManualTime();
    }
}

}  // namespace bench
