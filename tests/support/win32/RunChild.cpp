#include <windows.h>

#include <array>
#include <cstdio>
#include <thread>
#include <utility>

#include "support/Child.h"
#include "support/win32/WideText.h"

namespace vessa_test {
namespace {

class Handle {
  public:
    explicit Handle(HANDLE handle = nullptr) : handle_(handle) {}
    Handle(Handle&& other) noexcept : handle_(std::exchange(other.handle_, nullptr)) {}
    Handle& operator=(Handle&& other) noexcept {
        std::swap(handle_, other.handle_);
        return *this;
    }
    ~Handle() { Close(); }
    HANDLE Get() const { return handle_; }
    void Close() {
        if (handle_ != nullptr && handle_ != INVALID_HANDLE_VALUE) CloseHandle(handle_);
        handle_ = nullptr;
    }

  private:
    HANDLE handle_;
};

void Check(BOOL done, const char* what) {
    if (!done) ThrowLastError(what);
}

// For what the child is to have.
SECURITY_ATTRIBUTES Inheritable() {
    return {sizeof(SECURITY_ATTRIBUTES), nullptr, TRUE};
}

struct Pipe {
    Handle read;
    Handle write;

    Pipe() {
        SECURITY_ATTRIBUTES inheritable = Inheritable();
        HANDLE ends[2] = {};
        Check(CreatePipe(&ends[0], &ends[1], &inheritable, 0), "CreatePipe");
        read = Handle(ends[0]);
        write = Handle(ends[1]);
        Check(SetHandleInformation(ends[0], HANDLE_FLAG_INHERIT, 0), "SetHandleInformation");
    }
};

// Reads to the end of a pipe, on a thread of its own, so that neither output waits for the other.
class Reader {
  public:
    explicit Reader(const Pipe& pipe) : thread_([this, end = pipe.read.Get()] { Read(end); }) {}
    ~Reader() {
        if (thread_.joinable()) thread_.join();
    }
    Reader(const Reader&) = delete;
    Reader& operator=(const Reader&) = delete;

    // The text with "\n" at the ends of its lines.
    std::string Take() {
        thread_.join();
        std::string text;
        for (std::size_t i = 0; i < text_.size(); ++i) {
            if (text_.compare(i, 2, "\r\n") != 0) text += text_[i];
        }
        return text;
    }

  private:
    void Read(HANDLE end) {
        std::array<char, 4096> buffer{};
        DWORD got = 0;
        while (ReadFile(end, buffer.data(), static_cast<DWORD>(buffer.size()), &got, nullptr))
            text_.append(buffer.data(), got);
    }

    std::string text_;
    std::thread thread_;
};

// Everything that the child starts belongs to the same job, which ends with this object.
class Job {
  public:
    Job() : handle_(CreateJobObjectW(nullptr, nullptr)) {
        Check(handle_.Get() != nullptr, "CreateJobObject");
        JOBOBJECT_EXTENDED_LIMIT_INFORMATION limits{};
        limits.BasicLimitInformation.LimitFlags = JOB_OBJECT_LIMIT_KILL_ON_JOB_CLOSE;
        Check(SetInformationJobObject(handle_.Get(), JobObjectExtendedLimitInformation, &limits,
                                      sizeof limits),
              "SetInformationJobObject");
    }
    ~Job() { End(); }
    Job(const Job&) = delete;
    Job& operator=(const Job&) = delete;

    void Add(HANDLE process) { Check(AssignProcessToJobObject(handle_.Get(), process), "a job"); }
    void End() { TerminateJobObject(handle_.Get(), 1); }

  private:
    Handle handle_;
};

// The attribute of a new process that says which handles it inherits: these and no others, such
// as the ends of another child's pipes.
class HandleList {
  public:
    explicit HandleList(std::array<HANDLE, 3> handles) : handles_(handles) {
        SIZE_T size = 0;
        InitializeProcThreadAttributeList(nullptr, 1, 0, &size);
        storage_.resize(size);
        Check(InitializeProcThreadAttributeList(Get(), 1, 0, &size), "an attribute list");
        Check(UpdateProcThreadAttribute(Get(), 0, PROC_THREAD_ATTRIBUTE_HANDLE_LIST,
                                        handles_.data(), sizeof handles_, nullptr, nullptr),
              "an attribute");
    }
    ~HandleList() { DeleteProcThreadAttributeList(Get()); }
    HandleList(const HandleList&) = delete;
    HandleList& operator=(const HandleList&) = delete;

    LPPROC_THREAD_ATTRIBUTE_LIST Get() {
        return reinterpret_cast<LPPROC_THREAD_ATTRIBUTE_LIST>(storage_.data());
    }

  private:
    std::array<HANDLE, 3> handles_;
    std::vector<char> storage_;
};

// As the C library of the child takes it apart again: backslashes are themselves except before
// a quote.
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

std::wstring CommandLine(const ChildOptions& options) {
    std::wstring line = Quoted(WideText(options.program));
    for (const std::string& argument : options.arguments) line += L" " + Quoted(WideText(argument));
    return line;
}

bool SameName(const std::wstring& a, const std::wstring& b) {
    return CompareStringOrdinal(a.c_str(), -1, b.c_str(), -1, TRUE) == CSTR_EQUAL;
}

bool IsChanged(const ChildOptions& options, const std::wstring& variable) {
    // The names that begin with "=" are the system's own.
    const std::wstring name = variable.substr(0, variable.find(L'=', 1));
    for (const auto& change : options.environment) {
        if (SameName(name, WideText(change.first))) return true;
    }
    return false;
}

// Texts one after the other, each with its zero, and one more zero.
std::wstring Environment(const ChildOptions& options) {
    std::wstring block;
    wchar_t* const own = GetEnvironmentStringsW();
    for (const wchar_t* next = own; *next != L'\0';) {
        const std::wstring variable = next;
        next += variable.size() + 1;
        if (!IsChanged(options, variable)) block += variable + L'\0';
    }
    FreeEnvironmentStringsW(own);
    for (const auto& [name, value] : options.environment) {
        if (value) block += WideText(name) + L'=' + WideText(*value) + L'\0';
    }
    return block + L'\0';
}

std::wstring SystemPath(const std::string& path) {
    std::wstring wide = WideText(path);
    for (wchar_t& c : wide) {
        if (c == L'/') c = L'\\';
    }
    return wide;
}

// Begun, but not running yet.
PROCESS_INFORMATION Start(const ChildOptions& options, const Pipe& out, const Pipe& err) {
    SECURITY_ATTRIBUTES inheritable = Inheritable();
    const Handle nothing(CreateFileW(L"NUL", GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE,
                                     &inheritable, OPEN_EXISTING, 0, nullptr));
    Check(nothing.Get() != INVALID_HANDLE_VALUE, "NUL");
    HandleList handles({nothing.Get(), out.write.Get(), err.write.Get()});
    STARTUPINFOEXW startup{};
    startup.StartupInfo.cb = sizeof startup;
    startup.StartupInfo.dwFlags = STARTF_USESTDHANDLES;
    startup.StartupInfo.hStdInput = nothing.Get();
    startup.StartupInfo.hStdOutput = out.write.Get();
    startup.StartupInfo.hStdError = err.write.Get();
    startup.lpAttributeList = handles.Get();
    std::wstring line = CommandLine(options);
    std::wstring environment = Environment(options);
    const std::wstring folder = SystemPath(options.folder);
    // Inherited: a child that crashes or misses a library ends without asking anybody.
    SetErrorMode(SEM_FAILCRITICALERRORS | SEM_NOGPFAULTERRORBOX | SEM_NOOPENFILEERRORBOX);
    PROCESS_INFORMATION child{};
    if (!CreateProcessW(
            SystemPath(options.program).c_str(), line.data(), nullptr, nullptr, TRUE,
            CREATE_SUSPENDED | CREATE_UNICODE_ENVIRONMENT | EXTENDED_STARTUPINFO_PRESENT,
            environment.data(), folder.empty() ? nullptr : folder.c_str(), &startup.StartupInfo,
            &child))
        ThrowLastError(options.program);
    return child;
}

}  // namespace

ChildResult RunChild(const ChildOptions& options) {
    Pipe out;
    Pipe err;
    Job job;
    const PROCESS_INFORMATION child = Start(options, out, err);
    const Handle process(child.hProcess);
    const Handle thread(child.hThread);
    out.write.Close();
    err.write.Close();
    try {
        job.Add(process.Get());
    } catch (...) {
        TerminateProcess(process.Get(), 1);
        throw;
    }
    Reader out_reader(out);
    Reader err_reader(err);
    ResumeThread(thread.Get());
    ChildResult result;
    result.hung = WaitForSingleObject(
                      process.Get(), static_cast<DWORD>(options.watchdog.count())) != WAIT_OBJECT_0;
    // Also what the child left behind: it may hold the pipes open.
    job.End();
    WaitForSingleObject(process.Get(), INFINITE);
    DWORD status = 0;
    Check(GetExitCodeProcess(process.Get(), &status), "GetExitCodeProcess");
    if (!result.hung) result.exit_status = static_cast<int>(status);
    result.out = out_reader.Take();
    result.err = err_reader.Take();
    return result;
}

// A number of the system's exceptions has its two highest bits set.
bool ChildResult::Crashed() const {
    return !hung && (static_cast<unsigned>(exit_status) >> 30) == 3 && exit_status != -1;
}

std::string ChildResult::End() const {
    if (hung) return "hung";
    if (!Crashed()) return "exit status " + std::to_string(exit_status);
    char text[32];
    std::snprintf(text, sizeof text, "exception %08X", static_cast<unsigned>(exit_status));
    return text;
}

std::string OwnProgram() {
    std::wstring path(32768, L'\0');
    const DWORD length = GetModuleFileNameW(nullptr, path.data(), static_cast<DWORD>(path.size()));
    if (length == 0) ThrowLastError("GetModuleFileName");
    path.resize(length);
    for (wchar_t& c : path) {
        if (c == L'\\') c = L'/';
    }
    return NarrowText(path);
}

}  // namespace vessa_test
