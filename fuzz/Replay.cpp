// Runs stored inputs through a driver.
//
//     vessa_fuzz_<driver>_replay FILE|FOLDER...           ends with 0 and says how many there were
//     vessa_fuzz_<driver>_replay --plants FILE|FOLDER...  the same with each planted mistake of the
//                                                         oracle: each has to be found
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <system_error>
#include <vector>

#include "fuzz/Fuzz.h"

namespace {

namespace fs = std::filesystem;

constexpr int kUnreadable = 2;

std::vector<fs::path> FilesOf(const std::vector<std::string>& arguments) {
    std::vector<fs::path> files;
    for (const std::string& argument : arguments) {
        if (!fs::is_directory(argument)) {
            files.emplace_back(argument);
            continue;
        }
        for (const fs::directory_entry& entry : fs::directory_iterator(argument))
            files.push_back(entry.path());
    }
    std::sort(files.begin(), files.end());
    return files;
}

bool Run(const fs::path& path) {
    std::ifstream file(path, std::ios::binary);
    std::ostringstream text;
    text << file.rdbuf();
    if (!file) return false;
    const std::string bytes = text.str();
    // A copy of exactly so many bytes, behind which a sanitizer watches.
    const std::vector<uint8_t> input(bytes.begin(), bytes.end());
    LLVMFuzzerTestOneInput(input.data(), input.size());
    return true;
}

int RunAll(const std::vector<fs::path>& files) {
    for (const fs::path& path : files) {
        // Stands there when the driver ends the program.
        std::fprintf(stderr, "%s\n", path.c_str());
        if (!Run(path)) {
            std::fprintf(stderr, "cannot be read\n");
            return kUnreadable;
        }
    }
    return files.empty() ? kUnreadable : 0;
}

// In a child, because a finding ends the program: by Fail, or by a crash.
bool IsFound(int plant, const std::vector<fs::path>& files) {
    std::fflush(nullptr);
    const pid_t child = fork();
    if (child < 0) return false;
    if (child == 0) {
        vessa_fuzz::SetPlanted(plant);
        std::exit(RunAll(files));
    }
    int status = 0;
    waitpid(child, &status, 0);
    return status != 0 && !(WIFEXITED(status) && WEXITSTATUS(status) == kUnreadable);
}

int RunPlants(const std::vector<fs::path>& files) {
    int missed = 0;
    for (int plant = 1; plant <= vessa_fuzz::kPlants; ++plant) {
        if (IsFound(plant, files)) continue;
        std::printf("planted mistake %d was not found\n", plant);
        ++missed;
    }
    std::printf("%d of %d planted mistakes found\n", vessa_fuzz::kPlants - missed,
                vessa_fuzz::kPlants);
    return missed == 0 && vessa_fuzz::kPlants > 0 ? 0 : 1;
}

// The drivers' own folders are made in here, and go with it also when a finding ends a child.
class OwnFolder {
  public:
    OwnFolder() {
        std::string path = (fs::temp_directory_path() / "vessa-fuzz-XXXXXX").string();
        if (mkdtemp(path.data()) == nullptr) return;
        path_ = path;
        setenv("TMPDIR", path_.c_str(), 1);
    }
    ~OwnFolder() {
        std::error_code ignored;
        if (!path_.empty()) fs::remove_all(path_, ignored);
    }
    OwnFolder(const OwnFolder&) = delete;
    OwnFolder& operator=(const OwnFolder&) = delete;

  private:
    std::string path_;
};

}  // namespace

int main(int count, char** values) {
    const OwnFolder folder;
    std::vector<std::string> arguments(values + 1, values + count);
    const bool plants = !arguments.empty() && arguments.front() == "--plants";
    if (plants) arguments.erase(arguments.begin());
    const std::vector<fs::path> files = FilesOf(arguments);
    if (plants) return RunPlants(files);
    const int result = RunAll(files);
    std::printf("%zu inputs\n", files.size());
    return result;
}
