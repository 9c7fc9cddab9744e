// The test bed's hand inside Windows: a console program that reads commands from standard input, one a line,
// and answers each with one line on standard output. It starts programs and gives their full 32-bit exit code
// (a shell sees eight bits of it), the processes that they left behind, and edits the registry without a
// process start for each change.
//
// A line is a list of fields, separated by tabs; in a field, backslash, tab and line feed are written \\, \t
// and \n. Texts are UTF-8, byte strings are hexadecimal. An answer begins with "ok" or with "error" and a
// number.
//
//   run MILLISECONDS COMMANDLINE OUTPUT    ok exited|timeout PID CODE BEGIN END
//                                      (OUTPUT is the file for what the program writes to its standard
//                                      handles)
//   settle MILLISECONDS                ok settled|ended {PID CODE BEGIN END IMAGE}...
//                                      (what the last run left running; what is still there then, is ended)
//   start NAME COMMANDLINE OUTPUT      ok PID   (like run, but does not wait; NAME is for the two below)
//   wait NAME MILLISECONDS             ok exited|running PID CODE BEGIN END
//   kill NAME                          ok   (the program, as it stands; its wait gives the rest)
//   environment NAME VALUE             ok   (for the programs to come; an empty VALUE removes it)
//   hold FILE ACCESS SHARE             ok   (has a file open until `release`, with these hexadecimal numbers)
//   release                            ok
//   get KEY NAME                       ok TYPE BYTES
//   set KEY NAME TYPE BYTES            ok
//   delete-value KEY NAME              ok
//   delete-key KEY                     ok
//   expand TEXT                        ok TEXT
//   boxes                              ok {TITLE TEXT BUTTONS}...   (message boxes that can be seen; their
//                                      buttons are separated by "|")
//   message MODULE ID LANGUAGE {INSERT}...   ok TEXT
//   quit
//
// Process ids and exit codes are hexadecimal; BEGIN and END are decimal counts of 100 ns since 1601.

#include <windows.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <iterator>
#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace {

using fields = std::vector<std::string>;

std::wstring to_wide(std::string_view text) {
    const int length = static_cast<int>(text.size());
    std::wstring wide(text.size(), L'\0');
    wide.resize(static_cast<std::size_t>(
        MultiByteToWideChar(CP_UTF8, 0, text.data(), length, wide.data(), static_cast<int>(wide.size()))));
    return wide;
}

std::string to_utf8(std::wstring_view text) {
    std::string narrow(text.size() * 3, '\0');
    narrow.resize(static_cast<std::size_t>(
        WideCharToMultiByte(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), narrow.data(),
                            static_cast<int>(narrow.size()), nullptr, nullptr)));
    return narrow;
}

std::string hexadecimal(const std::vector<unsigned char>& bytes) {
    static constexpr char digits[] = "0123456789abcdef";
    std::string text;
    for (const unsigned char byte : bytes) {
        text += digits[byte >> 4];
        text += digits[byte & 15];
    }
    return text;
}

std::vector<unsigned char> from_hexadecimal(const std::string& text) {
    std::vector<unsigned char> bytes;
    for (std::size_t at = 0; at + 1 < text.size(); at += 2) {
        bytes.push_back(static_cast<unsigned char>(std::strtoul(text.substr(at, 2).c_str(), nullptr, 16)));
    }
    return bytes;
}

std::string number(std::uint32_t value) {
    char text[16];
    std::snprintf(text, sizeof text, "%08lx", static_cast<unsigned long>(value));
    return text;
}

// Exit code, begin and end of a process. The end is 0 while it runs.
fields facts(HANDLE process) {
    DWORD code = 0;
    FILETIME begin = {};
    FILETIME end = {};
    FILETIME kernel = {};
    FILETIME user = {};
    GetExitCodeProcess(process, &code);
    GetProcessTimes(process, &begin, &end, &kernel, &user);
    const auto ticks = [](const FILETIME& time) {
        return std::to_string((static_cast<std::uint64_t>(time.dwHighDateTime) << 32) | time.dwLowDateTime);
    };
    return {number(code), ticks(begin), ticks(end)};
}

fields split(const std::string& line) {
    fields parts(1);
    for (std::size_t at = 0; at < line.size(); ++at) {
        if (line[at] == '\t') {
            parts.emplace_back();
        } else if (line[at] == '\\' && at + 1 < line.size()) {
            const char escaped = line[++at];
            parts.back() += escaped == 't' ? '\t' : escaped == 'n' ? '\n' : escaped;
        } else {
            parts.back() += line[at];
        }
    }
    return parts;
}

std::string join(const fields& parts) {
    std::string line;
    for (std::size_t index = 0; index < parts.size(); ++index) {
        if (index != 0) {
            line += '\t';
        }
        for (const char byte : parts[index]) {
            if (byte == '\\') {
                line += "\\\\";
            } else if (byte == '\t') {
                line += "\\t";
            } else if (byte == '\n') {
                line += "\\n";
            } else {
                line += byte;
            }
        }
    }
    return line;
}

fields error(std::uint32_t code) {
    return {"error", std::to_string(code)};
}

std::string image_of(HANDLE process) {
    wchar_t path[1024];
    auto length = static_cast<DWORD>(std::size(path));
    return QueryFullProcessImageNameW(process, 0, path, &length) != 0 ? to_utf8({path, length})
                                                                      : std::string();
}

// One started program with everything that it starts in turn, held together by a job.
class process_tree {
public:
    process_tree() = default;
    process_tree(const process_tree&) = delete;
    process_tree& operator=(const process_tree&) = delete;
    ~process_tree() { end(); }

    fields run(DWORD limit, const std::string& command_line, const std::string& output);
    fields start(const std::string& command_line, const std::string& output);
    fields await(ULONGLONG until);
    fields kill();
    fields settle(DWORD limit);

private:
    void end();
    void note(DWORD id);
    bool wait(ULONGLONG until, HANDLE main_process);

    HANDLE m_job = nullptr;
    HANDLE m_port = nullptr;
    DWORD m_main = 0;
    bool m_empty = true;
    std::map<DWORD, HANDLE> m_members;
};

void process_tree::end() {
    if (m_job != nullptr) {
        TerminateJobObject(m_job, 0xDEAD);
        CloseHandle(m_job);
        CloseHandle(m_port);
        m_job = nullptr;
    }
    for (const auto& entry : m_members) {
        CloseHandle(entry.second);
    }
    m_members.clear();
    m_empty = true;
}

void process_tree::note(DWORD id) {
    if (m_members.count(id) != 0) {
        return;
    }
    const HANDLE process = OpenProcess(PROCESS_QUERY_INFORMATION | SYNCHRONIZE, FALSE, id);
    if (process != nullptr) {
        m_members[id] = process;
    }
}

// Follows the job's messages until the main process has ended (or, without one, until no process is left).
// What has been announced by then has been noted.
bool process_tree::wait(ULONGLONG until, HANDLE main_process) {
    for (;;) {
        DWORD message = 0;
        ULONG_PTR key = 0;
        OVERLAPPED* value = nullptr;
        const bool ended =
            main_process != nullptr ? WaitForSingleObject(main_process, 0) == WAIT_OBJECT_0 : m_empty;
        const ULONGLONG now = GetTickCount64();
        const DWORD pause = ended || now >= until ? 0 : static_cast<DWORD>(until - now);
        if (GetQueuedCompletionStatus(m_port, &message, &key, &value, pause) == 0) {
            if (ended || pause == 0) {
                return ended;
            }
            continue;
        }
        const auto id = static_cast<DWORD>(reinterpret_cast<ULONG_PTR>(value));
        if (message == JOB_OBJECT_MSG_NEW_PROCESS) {
            note(id);
        } else if (message == JOB_OBJECT_MSG_ACTIVE_PROCESS_ZERO) {
            m_empty = true;
        } else if (id == m_main && main_process != nullptr) {
            // The exit message may come a moment before the process object is signalled.
            WaitForSingleObject(main_process, pause);
        }
    }
}

fields process_tree::run(DWORD limit, const std::string& command_line, const std::string& output) {
    const ULONGLONG until = GetTickCount64() + limit;
    fields answer = start(command_line, output);
    if (answer[0] == "ok") {
        answer = await(until);
        if (answer[1] == "running") {
            TerminateJobObject(m_job, 0xDEAD);
            answer[1] = "timeout";
        }
    }
    return answer;
}

fields process_tree::start(const std::string& command_line, const std::string& output) {
    end();
    m_job = CreateJobObjectW(nullptr, nullptr);
    m_port = CreateIoCompletionPort(INVALID_HANDLE_VALUE, nullptr, 0, 1);
    JOBOBJECT_ASSOCIATE_COMPLETION_PORT association = {m_job, m_port};
    if (m_job == nullptr || m_port == nullptr ||
        SetInformationJobObject(m_job, JobObjectAssociateCompletionPortInformation, &association,
                                sizeof association) == 0) {
        return error(GetLastError());
    }
    SECURITY_ATTRIBUTES inherited = {sizeof inherited, nullptr, TRUE};
    const HANDLE nothing = CreateFileW(L"NUL", GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, &inherited,
                                       OPEN_EXISTING, 0, nullptr);
    const HANDLE written =
        CreateFileW(to_wide(output).c_str(), FILE_APPEND_DATA, FILE_SHARE_READ | FILE_SHARE_WRITE, &inherited,
                    CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
    STARTUPINFOW start = {};
    start.cb = sizeof start;
    start.dwFlags = STARTF_USESTDHANDLES;
    start.hStdInput = nothing;
    start.hStdOutput = start.hStdError = written;
    PROCESS_INFORMATION started = {};
    std::wstring wide = to_wide(command_line);
    const BOOL created = CreateProcessW(nullptr, wide.data(), nullptr, nullptr, TRUE, CREATE_SUSPENDED,
                                        nullptr, nullptr, &start, &started);
    const DWORD code = GetLastError();
    CloseHandle(nothing);
    CloseHandle(written);
    if (created == 0) {
        return error(code);
    }
    m_main = started.dwProcessId;
    m_members[m_main] = started.hProcess;
    m_empty = false;
    AssignProcessToJobObject(m_job, started.hProcess);
    ResumeThread(started.hThread);
    CloseHandle(started.hThread);
    return {"ok", number(m_main)};
}

fields process_tree::await(ULONGLONG until) {
    const auto main_process = m_members.find(m_main);
    if (main_process == m_members.end()) {
        return error(ERROR_NOT_FOUND);
    }
    const bool exited = wait(until, main_process->second);
    fields answer = {"ok", exited ? "exited" : "running", number(m_main)};
    const fields ended = facts(main_process->second);
    answer.insert(answer.end(), ended.begin(), ended.end());
    return answer;
}

fields process_tree::kill() {
    const auto main_process = m_members.find(m_main);
    if (main_process == m_members.end() || TerminateProcess(main_process->second, 0xDEAD) == 0) {
        return error(main_process == m_members.end() ? ERROR_NOT_FOUND : GetLastError());
    }
    return {"ok"};
}

fields process_tree::settle(DWORD limit) {
    const bool settled = wait(GetTickCount64() + limit, nullptr);
    if (!settled) {
        TerminateJobObject(m_job, 0xDEAD);
        wait(GetTickCount64() + 10000, nullptr);
    }
    fields answer = {"ok", settled ? "settled" : "ended"};
    for (const auto& [id, process] : m_members) {
        if (id != m_main) {
            const fields ended = facts(process);
            answer.push_back(number(id));
            answer.insert(answer.end(), ended.begin(), ended.end());
            answer.push_back(image_of(process));
        }
    }
    end();
    return answer;
}

HKEY root_of(std::wstring& path) {
    const std::size_t end = path.find(L'\\');
    const std::wstring root = path.substr(0, end);
    path.erase(0, end == std::wstring::npos ? path.size() : end + 1);
    return root == L"HKLM" ? HKEY_LOCAL_MACHINE : root == L"HKCU" ? HKEY_CURRENT_USER : nullptr;
}

fields registry_get(const fields& command) {
    std::wstring path = to_wide(command[1]);
    const HKEY root = root_of(path);
    HKEY key = nullptr;
    LSTATUS status = RegOpenKeyExW(root, path.c_str(), 0, KEY_READ | KEY_WOW64_64KEY, &key);
    if (status != ERROR_SUCCESS) {
        return error(static_cast<std::uint32_t>(status));
    }
    std::vector<unsigned char> data(65536);
    auto length = static_cast<DWORD>(data.size());
    DWORD type = 0;
    status = RegQueryValueExW(key, to_wide(command[2]).c_str(), nullptr, &type, data.data(), &length);
    RegCloseKey(key);
    if (status != ERROR_SUCCESS) {
        return error(static_cast<std::uint32_t>(status));
    }
    data.resize(length);
    return {"ok", std::to_string(type), hexadecimal(data)};
}

fields registry_set(const fields& command) {
    std::wstring path = to_wide(command[1]);
    const HKEY root = root_of(path);
    HKEY key = nullptr;
    LSTATUS status = RegCreateKeyExW(root, path.c_str(), 0, nullptr, 0, KEY_WRITE | KEY_WOW64_64KEY, nullptr,
                                     &key, nullptr);
    if (status == ERROR_SUCCESS) {
        const std::vector<unsigned char> data = from_hexadecimal(command[4]);
        status = RegSetValueExW(key, to_wide(command[2]).c_str(), 0,
                                static_cast<DWORD>(std::strtoul(command[3].c_str(), nullptr, 10)),
                                data.data(), static_cast<DWORD>(data.size()));
        RegCloseKey(key);
    }
    return status == ERROR_SUCCESS ? fields{"ok"} : error(static_cast<std::uint32_t>(status));
}

fields registry_delete_value(const fields& command) {
    std::wstring path = to_wide(command[1]);
    const HKEY root = root_of(path);
    HKEY key = nullptr;
    LSTATUS status = RegOpenKeyExW(root, path.c_str(), 0, KEY_WRITE | KEY_WOW64_64KEY, &key);
    if (status == ERROR_SUCCESS) {
        status = RegDeleteValueW(key, to_wide(command[2]).c_str());
        RegCloseKey(key);
    }
    return status == ERROR_SUCCESS ? fields{"ok"} : error(static_cast<std::uint32_t>(status));
}

fields registry_delete_key(const fields& command) {
    std::wstring path = to_wide(command[1]);
    const HKEY root = root_of(path);
    const LSTATUS status = RegDeleteTreeW(root, path.c_str());
    return status == ERROR_SUCCESS ? fields{"ok"} : error(static_cast<std::uint32_t>(status));
}

fields expand(const fields& command) {
    wchar_t text[4096];
    const DWORD length =
        ExpandEnvironmentStringsW(to_wide(command[1]).c_str(), text, static_cast<DWORD>(std::size(text)));
    return length == 0 || length > std::size(text) ? error(GetLastError())
                                                   : fields{"ok", to_utf8({text, length - 1})};
}

fields message(const fields& command) {
    const HMODULE module = LoadLibraryExW(to_wide(command[1]).c_str(), nullptr,
                                          LOAD_LIBRARY_AS_DATAFILE | LOAD_LIBRARY_AS_IMAGE_RESOURCE);
    if (module == nullptr) {
        return error(GetLastError());
    }
    std::vector<std::wstring> inserts;
    for (std::size_t index = 4; index < command.size(); ++index) {
        inserts.push_back(to_wide(command[index]));
    }
    std::vector<DWORD_PTR> arguments;
    for (const std::wstring& insert : inserts) {
        arguments.push_back(reinterpret_cast<DWORD_PTR>(insert.c_str()));
    }
    wchar_t text[8192];
    const DWORD length =
        FormatMessageW(FORMAT_MESSAGE_FROM_HMODULE | FORMAT_MESSAGE_ARGUMENT_ARRAY, module,
                       static_cast<DWORD>(std::strtoul(command[2].c_str(), nullptr, 16)),
                       static_cast<DWORD>(std::strtoul(command[3].c_str(), nullptr, 10)), text,
                       static_cast<DWORD>(std::size(text)), reinterpret_cast<va_list*>(arguments.data()));
    const DWORD code = GetLastError();
    FreeLibrary(module);
    return length == 0 ? error(code) : fields{"ok", to_utf8({text, length})};
}

bool read_line(std::string& line) {
    line.clear();
    const HANDLE input = GetStdHandle(STD_INPUT_HANDLE);
    for (;;) {
        char byte = 0;
        DWORD length = 0;
        if (ReadFile(input, &byte, 1, &length, nullptr) == 0 || length == 0) {
            return false;
        }
        if (byte == '\n') {
            return true;
        }
        line += byte;
    }
}

void write_line(const std::string& line) {
    const std::string text = line + '\n';
    DWORD length = 0;
    WriteFile(GetStdHandle(STD_OUTPUT_HANDLE), text.data(), static_cast<DWORD>(text.size()), &length,
              nullptr);
}

// Asks a window of another program for its text, which may not answer.
std::string text_of(HWND window) {
    wchar_t text[8192];
    DWORD_PTR length = 0;
    const auto size = static_cast<WPARAM>(std::size(text));
    const LRESULT answered = SendMessageTimeoutW(window, WM_GETTEXT, size, reinterpret_cast<LPARAM>(text),
                                                 SMTO_ABORTIFHUNG, 5000, &length);
    return answered == 0 ? std::string() : to_utf8({text, length});
}

std::string class_of(HWND window) {
    wchar_t name[64];
    const int length = GetClassNameW(window, name, static_cast<int>(std::size(name)));
    return to_utf8({name, static_cast<std::size_t>(length)});
}

BOOL CALLBACK add_part(HWND part, LPARAM answer) {
    auto& box = *reinterpret_cast<fields*>(answer);
    const std::string kind = class_of(part);
    if (kind == "Button" && IsWindowVisible(part) != 0) {
        box[2] += (box[2].empty() ? "" : "|") + text_of(part);
    } else if (kind == "Static" && IsWindowVisible(part) != 0) { // the icon's text is empty
        box[1] += text_of(part);
    }
    return TRUE;
}

BOOL CALLBACK add_box(HWND window, LPARAM answer) {
    if (IsWindowVisible(window) != 0 && class_of(window) == "#32770") {
        fields box = {text_of(window), "", ""};
        EnumChildWindows(window, add_part, reinterpret_cast<LPARAM>(&box));
        auto& all = *reinterpret_cast<fields*>(answer);
        all.insert(all.end(), box.begin(), box.end());
    }
    return TRUE;
}

fields boxes() {
    fields answer = {"ok"};
    EnumWindows(add_box, reinterpret_cast<LPARAM>(&answer));
    return answer;
}

HANDLE held = INVALID_HANDLE_VALUE;

fields hold(const fields& command) {
    const auto flags = [&](std::size_t index) {
        return static_cast<DWORD>(std::strtoul(command[index].c_str(), nullptr, 16));
    };
    if (held != INVALID_HANDLE_VALUE) {
        return error(ERROR_BUSY);
    }
    held = CreateFileW(to_wide(command[1]).c_str(), flags(2), flags(3), nullptr, OPEN_EXISTING,
                       FILE_ATTRIBUTE_NORMAL, nullptr);
    return held != INVALID_HANDLE_VALUE ? fields{"ok"} : error(GetLastError());
}

fields release() {
    const BOOL closed = CloseHandle(held);
    held = INVALID_HANDLE_VALUE;
    return closed != 0 ? fields{"ok"} : error(GetLastError());
}

fields set_environment(const fields& command) {
    const BOOL set = SetEnvironmentVariableW(to_wide(command[1]).c_str(),
                                             command[2].empty() ? nullptr : to_wide(command[2]).c_str());
    // Removing what is not there is what was asked for.
    return set != 0 || command[2].empty() ? fields{"ok"} : error(GetLastError());
}

// `tree` is the one of `run`; those of `start` have names.
fields execute(process_tree& tree, std::map<std::string, process_tree>& started, const fields& command) {
    const std::string& name = command[0];
    const std::size_t count = command.size();
    const auto milliseconds = [&](std::size_t index) {
        return static_cast<DWORD>(std::strtoul(command[index].c_str(), nullptr, 10));
    };
    const auto limit = [&] { return milliseconds(1); };
    if (name == "run" && count == 4) {
        return tree.run(limit(), command[2], command[3]);
    }
    if (name == "settle" && count == 2) {
        return tree.settle(limit());
    }
    if (name == "start" && count == 4) {
        return started[command[1]].start(command[2], command[3]);
    }
    if (name == "wait" && count == 3) {
        return started[command[1]].await(GetTickCount64() + milliseconds(2));
    }
    if (name == "kill" && count == 2) {
        return started[command[1]].kill();
    }
    if (name == "environment" && count == 3) {
        return set_environment(command);
    }
    if (name == "hold" && count == 4) {
        return hold(command);
    }
    if (name == "release" && count == 1) {
        return release();
    }
    if (name == "get" && count == 3) {
        return registry_get(command);
    }
    if (name == "set" && count == 5) {
        return registry_set(command);
    }
    if (name == "delete-value" && count == 3) {
        return registry_delete_value(command);
    }
    if (name == "delete-key" && count == 2) {
        return registry_delete_key(command);
    }
    if (name == "expand" && count == 2) {
        return expand(command);
    }
    if (name == "boxes" && count == 1) {
        return boxes();
    }
    if (name == "message" && count >= 4) {
        return message(command);
    }
    return error(ERROR_INVALID_FUNCTION);
}

} // namespace

int main() {
    // Brings up the desktop process once, for as long as the agent lives. Otherwise each program with a
    // hidden window starts one of its own, which outlives it by a second.
    GetDesktopWindow();
    process_tree tree;
    std::map<std::string, process_tree> started;
    std::string line;
    while (read_line(line)) {
        const fields command = split(line);
        if (command[0] == "quit") {
            break;
        }
        write_line(join(execute(tree, started, command)));
    }
    return 0;
}
