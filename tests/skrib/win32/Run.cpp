#include <windows.h>

#include <stdexcept>

#include "../Support.h"

namespace skrib_test {
namespace {

constexpr DWORD kLifeMs = 100'000;

// A file that a child writes to; what it inherits.
class Output {
  public:
    explicit Output(const std::string& path) {
        SECURITY_ATTRIBUTES inheritable{sizeof(SECURITY_ATTRIBUTES), nullptr, TRUE};
        handle_ = CreateFileW(Wide(path).c_str(), GENERIC_WRITE, FILE_SHARE_READ, &inheritable,
                              OPEN_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
        if (handle_ == INVALID_HANDLE_VALUE) throw std::runtime_error("cannot open " + path);
    }
    ~Output() { CloseHandle(handle_); }
    Output(const Output&) = delete;
    Output& operator=(const Output&) = delete;
    HANDLE Get() const { return handle_; }

  private:
    HANDLE handle_;
};

// As the child takes it apart again: backslashes are themselves except before a quote.
std::wstring Quoted(const std::wstring& argument) {
    std::wstring quoted = L"\"";
    std::size_t backslashes = 0;
    for (const wchar_t c : argument) {
        if (c == L'"') quoted.append(backslashes + 1, L'\\');
        backslashes = c == L'\\' ? backslashes + 1 : 0;
        quoted += c;
    }
    quoted.append(backslashes, L'\\');
    return quoted + L"\"";
}

std::wstring Block(std::vector<std::string> variables) {
    // Without it the system does not find its own files.
    if (const char* root = std::getenv("SystemRoot")) {
        variables.push_back(std::string("SystemRoot=") + root);
    }
    std::wstring block;
    for (const std::string& variable : variables) block += Wide(variable) + L'\0';
    return block + L'\0';
}

}  // namespace

Outcome Run(const std::string& program, const std::vector<std::string>& arguments,
            const std::vector<std::string>& environment, const std::string& err_path) {
    const TemporaryFolder folder;
    const std::string out = folder / "out";
    const std::string err = err_path.empty() ? folder / "err" : err_path;
    std::wstring line = Quoted(Wide(program));
    for (const std::string& argument : arguments) line += L' ' + Quoted(Wide(argument));
    std::wstring block = Block(environment);
    Outcome outcome;
    {
        const Output out_file(out);
        const Output err_file(err);
        STARTUPINFOW startup{};
        startup.cb = sizeof startup;
        startup.dwFlags = STARTF_USESTDHANDLES;
        startup.hStdOutput = out_file.Get();
        startup.hStdError = err_file.Get();
        PROCESS_INFORMATION child{};
        if (!CreateProcessW(Wide(program).c_str(), line.data(), nullptr, nullptr, TRUE,
                            CREATE_UNICODE_ENVIRONMENT, block.data(), nullptr, &startup, &child))
            throw std::runtime_error("cannot start " + program);
        if (WaitForSingleObject(child.hProcess, kLifeMs) != WAIT_OBJECT_0)
            TerminateProcess(child.hProcess, static_cast<UINT>(-1));
        WaitForSingleObject(child.hProcess, INFINITE);
        DWORD status = 0;
        GetExitCodeProcess(child.hProcess, &status);
        CloseHandle(child.hThread);
        CloseHandle(child.hProcess);
        outcome.status = static_cast<int>(status);
        outcome.thread = std::to_string(child.dwThreadId);
    }
    outcome.out = Contents(out);
    if (err_path.empty()) outcome.err = Contents(err);
    return outcome;
}

}  // namespace skrib_test
