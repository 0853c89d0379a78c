// vessa_demo: sends files through every codec that the plug-in library offers.
#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "host/arguments.h"
#include "host/codecs.h"
#include "host/corpus.h"
#include "host/progress.h"
#include "host/report.h"
#include "host/roundtrip.h"
#include "host/watch.h"
#include "skrib.h"

namespace {

constexpr double kMegabyte = 1e6;

struct Options {
    std::vector<std::string> paths;
    std::vector<std::string> codecs;
    int level = CODEC_LEVEL_DEFAULT;
    std::uint64_t limit_mb = 0;
    bool watch = false;
    double watch_seconds = 0;
    bool list = false;
    bool quiet = false;
    int log_level = 0;  // 0: not asked for
};

volatile std::sig_atomic_t stop_requested = 0;

extern "C" void RequestStop(int) {
    stop_requested = 1;
}

void Declare(CLI::App& app, Options& options) {
    const std::map<std::string, int> levels = {{"trace", SKRIB_LEVEL_TRACE},
                                               {"debug", SKRIB_LEVEL_DEBUG},
                                               {"information", SKRIB_LEVEL_INFORMATION},
                                               {"warning", SKRIB_LEVEL_WARNING},
                                               {"error", SKRIB_LEVEL_ERROR},
                                               {"off", SKRIB_LEVEL_OFF}};
    app.add_option("path", options.paths, "Files and folders; folders at any depth");
    app.add_option("--codec", options.codecs, "Only this key; may be given several times")
        ->type_name("KEY")
        ->allow_extra_args(false);
    app.add_option("--level", options.level, "Effort: 1 fastest to 9 smallest, 0 the codec's own")
        ->check(CLI::Range(CODEC_LEVEL_DEFAULT, CODEC_LEVEL_MAX));
    app.add_option("--limit-mb", options.limit_mb,
                   "Leave out files above this sum of sizes, in MB of 1,000,000 bytes")
        ->check(CLI::Range(1, 1000000));
    CLI::Option* watch =
        app.add_flag("--watch", options.watch,
                     "Keep running, show keys as they come and go, use each codec that comes");
    app.add_option("--watch-for", options.watch_seconds, "End --watch after so many seconds")
        ->needs(watch)
        ->check(CLI::PositiveNumber);
    app.add_flag("--list", options.list, "Show the keys and end");
    app.add_flag("--quiet", options.quiet, "No progress line");
    app.add_option("--log", options.log_level,
                   "What the libraries write to standard error: trace, debug, information, "
                   "warning, error or off")
        ->transform(CLI::CheckedTransformer(levels, CLI::ignore_case).description(""))
        ->type_name("LEVEL");
}

void SetLog(const Options& options) {
    if (options.log_level != 0) {
        SKRIB_SetThreshold(nullptr, options.log_level);
    } else if (std::getenv("SKRIB_LEVEL") == nullptr) {
        // Failures are told by this program; the record of every step is for --log.
        SKRIB_SetThreshold("vessa", SKRIB_LEVEL_OFF);
    }
}

std::vector<host::Key> ChosenKeys(const std::vector<std::string>& only) {
    std::vector<host::Key> keys = host::ConfiguredKeys();
    if (only.empty()) return keys;
    std::vector<host::Key> chosen;
    for (const std::string& fkey : only) {
        const auto found = std::find_if(keys.begin(), keys.end(),
                                        [&](const host::Key& key) { return key.fkey == fkey; });
        if (found == keys.end()) throw std::runtime_error(fkey + ": no such key is configured");
        chosen.push_back(*found);
    }
    return chosen;
}

bool ListKeys(const std::vector<std::string>& only) {
    bool good = true;
    for (const host::Key& key : ChosenKeys(only)) {
        std::string state;
        try {
            const bool codec = host::Instance(key.fkey).FindStream() != nullptr;
            state = codec ? "codec" : "no codec";
        } catch (const host::LibraryError& error) {
            state = error.what();
            good = false;
        }
        fmt::print("{:<18} {:<20} {:<10} {}\n", key.fkey, key.module,
                   key.announced ? "announced" : "declared", state);
    }
    return good;
}

// False: there is no such plug-in or it is broken, which was told. Other plug-ins than codecs
// are passed over unless they were asked for by name.
bool RunOne(const host::Key& key, bool asked_for, const host::Corpus& corpus, int level,
            host::Progress& progress, std::vector<host::Outcome>& outcomes) {
    try {
        if (!asked_for && host::Instance(key.fkey).FindStream() == nullptr) return true;
        outcomes.push_back(host::Run(key, corpus, level, progress, stop_requested));
        host::PrintFailures(outcomes.back());
        return outcomes.back().failures.empty();
    } catch (const std::exception& error) {
        progress.Clear();
        fmt::print(stderr, "{}\n", error.what());
        return false;
    }
}

bool RunAll(const Options& options, const host::Corpus& corpus, host::Progress& progress) {
    const std::vector<host::Key> keys = ChosenKeys(options.codecs);
    std::vector<host::Outcome> outcomes;
    bool good = true;
    for (const host::Key& key : keys) {
        good =
            RunOne(key, !options.codecs.empty(), corpus, options.level, progress, outcomes) && good;
    }
    if (outcomes.empty() && good) {
        fmt::print(stderr, "no codec is configured below the folder \"tarnet\"\n");
        return false;
    }
    if (!outcomes.empty()) host::PrintTable(outcomes);
    return good;
}

void DescribeCorpus(const host::Corpus& corpus) {
    std::string text = fmt::format("{} files, {:.1f} MB", corpus.files.size(),
                                   static_cast<double>(corpus.bytes) / kMegabyte);
    if (corpus.left_out != 0) text += fmt::format("; {} left out by the limit", corpus.left_out);
    if (corpus.unreadable != 0) text += fmt::format("; {} not readable", corpus.unreadable);
    fmt::print("{}\n", text);
    std::fflush(stdout);
}

bool Work(const Options& options) {
    const std::uint64_t limit_bytes = options.limit_mb * static_cast<std::uint64_t>(kMegabyte);
    const host::Corpus corpus = host::GatherFiles(options.paths, limit_bytes);
    if (!options.list && !options.watch && corpus.files.empty()) {
        throw std::runtime_error("no files to work on; --help says more");
    }
    const host::Library library;
    if (options.list) return ListKeys(options.codecs);
    if (!corpus.files.empty()) DescribeCorpus(corpus);
    host::Progress progress(!options.quiet);
    if (options.watch) {
        const std::set<std::string> only(options.codecs.begin(), options.codecs.end());
        host::Watcher watcher(only, corpus, options.level, progress, stop_requested);
        return watcher.Run(options.watch_seconds);
    }
    return RunAll(options, corpus, progress);
}

}  // namespace

int main(int argc, char** argv) {
    Options options;
    CLI::App app{
        "Compresses and decompresses files with every codec plug-in and compares the "
        "bytes.",
        "vessa_demo"};
    Declare(app, options);
    // A path that begins with "/" is no option, on any system.
    app.allow_windows_style_options(false);
    std::vector<std::string> arguments = host::Arguments(argc, argv);
    std::reverse(arguments.begin(), arguments.end());
    try {
        app.parse(std::move(arguments));
    } catch (const CLI::ParseError& error) {
        return app.exit(error);
    }

    std::signal(SIGINT, RequestStop);
    std::signal(SIGTERM, RequestStop);
    SetLog(options);
    try {
        return Work(options) ? EXIT_SUCCESS : EXIT_FAILURE;
    } catch (const host::Interrupted&) {
        fmt::print(stderr, "interrupted\n");
    } catch (const std::exception& error) {
        fmt::print(stderr, "vessa_demo: {}\n", error.what());
    }
    return EXIT_FAILURE;
}
