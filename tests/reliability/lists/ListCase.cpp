#include "reliability/lists/ListCase.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>
#include <stdexcept>
#include <system_error>

namespace vessa_lists {
namespace {

namespace fs = std::filesystem;

std::string ReadAll(const fs::path& path) {
    std::ifstream file(path, std::ios::binary);
    std::ostringstream text;
    text << file.rdbuf();
    if (!file) throw std::runtime_error("cannot read " + path.string());
    return text.str();
}

std::string Unescaped(const std::string& text) {
    std::string result;
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '\\') {
            result += text[i];
            continue;
        }
        static const std::string kCodes = "ntrs\\";
        const char code = i + 1 < text.size() ? text[++i] : '\0';
        const size_t known = kCodes.find(code);
        if (code == 'x' && i + 2 < text.size()) {
            result += static_cast<char>(std::stoi(text.substr(i + 1, 2), nullptr, 16));
            i += 2;
        } else if (code != '\0' && known != std::string::npos) {
            result += "\n\t\r \\"[known];
        } else {
            throw std::runtime_error("an escape that nobody knows: " + text);
        }
    }
    return result;
}

std::string Numbered(const std::string& pattern, size_t number) {
    std::string text = pattern;
    for (size_t at = text.find("{n}"); at != std::string::npos; at = text.find("{n}"))
        text.replace(at, 3, std::to_string(number));
    return text;
}

// "12 rest" in its two parts.
size_t TakeNumber(std::string& text) {
    size_t digits = 0;
    const size_t number = std::stoul(text, &digits);
    text.erase(0, digits + 1);
    return number;
}

// Calls step with the first word and the rest of every line.
template <class Step>
void ForEachLine(const std::string& name, const std::string& text, Step step) {
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        const size_t blank = std::min(line.find(' '), line.size());
        const std::string rest = line.substr(std::min(blank + 1, line.size()));
        try {
            if (step(line.substr(0, blank), rest)) continue;
        } catch (const std::logic_error&) {
            // No number where one belongs.
        }
        throw std::runtime_error(name + ": not understood: " + line);
    }
}

void AppendUpTo(std::string& content, size_t bytes, const std::string& pattern, bool cut) {
    for (size_t n = 0;; ++n) {
        const std::string next = Numbered(pattern, n);
        if (next.empty() || content.size() + next.size() > bytes) {
            if (cut && content.size() < bytes) content += next.substr(0, bytes - content.size());
            return;
        }
        content += next;
    }
}

void WriteOver(const std::string& path, const std::string& content) {
    std::ofstream file(path, std::ios::binary);
    file << content;
    file.close();
    if (!file) throw std::runtime_error("cannot write " + path);
}

void MakeSocket(const std::string& path) {
    // The address holds a hundred bytes only: it is bound by its last name.
    const int made = socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, "socket", sizeof address.sun_path - 1);
    const fs::path before = fs::current_path();
    fs::current_path(fs::path(path).parent_path());
    const int failure = bind(made, reinterpret_cast<const sockaddr*>(&address), sizeof address);
    fs::current_path(before);
    close(made);
    if (failure != 0) throw std::runtime_error("cannot make the socket " + path);
    fs::rename(fs::path(path).parent_path() / "socket", path);
}

}  // namespace

std::string FilesFolder() {
    return VESSA_LISTS_FILES;
}

std::vector<std::string> StoredCases() {
    std::set<std::string> contents;
    std::set<std::string> expectations;
    for (const fs::directory_entry& entry : fs::directory_iterator(FilesFolder())) {
        const bool expects = entry.path().extension() == ".expect";
        if (!(expects ? expectations : contents).insert(entry.path().stem().string()).second)
            throw std::runtime_error("stored twice: " + entry.path().string());
    }
    if (contents != expectations) throw std::runtime_error("a case without its other half");
    return std::vector<std::string>(contents.begin(), contents.end());
}

ListCase ParseExpectation(ListCase list_case, const std::string& text) {
    bool is_first = true;
    ForEachLine(list_case.name, text, [&](const std::string& word, std::string rest) {
        if (is_first) {
            is_first = false;
            list_case.verdict = word == "accepted"  ? ListCase::Verdict::kAccepted
                                : word == "refused" ? ListCase::Verdict::kRefused
                                                    : ListCase::Verdict::kAbsent;
            return word == "accepted" || word == "refused" || word == "absent";
        }
        if (word == "fkey") {
            list_case.fkeys.push_back(Unescaped(rest));
        } else if (word == "fkeys") {
            const size_t count = TakeNumber(rest);
            for (size_t n = 0; n < count; ++n)
                list_case.fkeys.push_back(Numbered(Unescaped(rest), n));
        } else if (word == "long") {
            const size_t count = TakeNumber(rest);
            std::string& fkey = list_case.fkeys.emplace_back();
            for (size_t n = 0; n < count; ++n) fkey += Unescaped(rest);
        } else if (word == "unregistered") {
            list_case.fkeys.push_back(Unescaped(rest));
            list_case.unregistered.insert(Unescaped(rest));
        } else if (word == "cut") {
            const size_t bytes = TakeNumber(rest);
            list_case.cuts[bytes] = Unescaped(rest);
        } else if (word == "log") {
            list_case.log.push_back(Unescaped(rest));
        } else {
            return false;
        }
        return true;
    });
    return list_case;
}

ListCase ParseRecipe(ListCase list_case, const std::string& text) {
    std::string& content = list_case.content;
    ForEachLine(list_case.name, text, [&](const std::string& word, std::string rest) {
        if (word == "text") {
            content += Unescaped(rest);
        } else if (word == "repeat") {
            const size_t count = TakeNumber(rest);
            for (size_t n = 0; n < count; ++n) content += Numbered(Unescaped(rest), n);
        } else if (word == "fill" || word == "upto") {
            const size_t bytes = TakeNumber(rest);
            AppendUpTo(content, bytes, Unescaped(rest), word == "upto");
        } else if (word == "kind") {
            list_case.kind = rest;
        } else {
            return false;
        }
        return true;
    });
    return list_case;
}

ListCase ReadCase(const std::string& name) {
    const fs::path folder(FilesFolder());
    ListCase list_case;
    list_case.name = name;
    if (fs::exists(folder / (name + ".recipe")))
        list_case = ParseRecipe(list_case, ReadAll(folder / (name + ".recipe")));
    else
        list_case.content = ReadAll(folder / (name + ".xml"));
    return ParseExpectation(list_case, ReadAll(folder / (name + ".expect")));
}

void Place(const ListCase& list_case, const std::string& path) {
    const std::string& kind = list_case.kind;
    fs::remove_all(path);
    if (kind.empty() || kind == "grows" || kind == "shrinks") {
        WriteOver(path, list_case.content);
    } else if (kind == "fifo") {
        if (mkfifo(path.c_str(), 0600) != 0) throw std::runtime_error("cannot make a fifo");
    } else if (kind == "device") {
        fs::create_symlink("/dev/zero", path);
    } else if (kind == "folder") {
        fs::create_directory(path);
    } else if (kind == "dangling") {
        fs::create_symlink("nowhere/at/all", path);
    } else if (kind == "loop") {
        fs::create_symlink(fs::path(path).filename(), path);
    } else if (kind == "socket") {
        MakeSocket(path);
    } else {
        throw std::runtime_error("no such kind: " + kind);
    }
}

}  // namespace vessa_lists
