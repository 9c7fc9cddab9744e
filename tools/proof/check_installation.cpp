#include "tools/proof/checks.h"
#include "tools/proof/files.h"
#include "tools/proof/take_snapshot.h"
#include "tools/proof/web_server.h"

#include "packaging/installer/scheduled_task.h"
#include "platform/com_initializer.h"
#include "platform/errors.h"
#include "platform/handle.h"
#include "platform/registry.h"

#include <oleauto.h>
#include <taskschd.h>
#include <winevt.h>

#include <aclapi.h>
#include <sddl.h>

#include <memory>

namespace proof {

namespace {

constexpr wchar_t events_key[] = L"SYSTEM\\CurrentControlSet\\Services\\EventLog\\Application\\HalvoroUpdate";
constexpr wchar_t updater_key[] = L"SOFTWARE\\Tavrin\\Halvoro\\Lumaris";

// What an installation brings, and what an upgrade then changes.
constexpr char installed_things[] =
    "new file %ProgramFiles%\\Tavrin\\Halvoro\\lumaris.exe, "
    "new file %ProgramFiles%\\Tavrin\\Halvoro\\lumaris_check.exe, "
    "new file %ProgramFiles%\\Tavrin\\Halvoro\\lumaris_notices.txt, "
    "new folder %CommonProgramFiles%\\Tavrin, new folder %CommonProgramFiles%\\Tavrin\\Lumaris, "
    "new folder %ProgramFiles%\\Tavrin, new folder %ProgramFiles%\\Tavrin\\Halvoro, "
    "new key SOFTWARE\\Microsoft\\Windows\\CurrentVersion\\Uninstall\\(first), "
    "new key SOFTWARE\\Tavrin, new key SOFTWARE\\Tavrin\\Halvoro, "
    "new key SOFTWARE\\Tavrin\\Halvoro\\Lumaris, "
    "new key SYSTEM\\CurrentControlSet\\Services\\EventLog\\Application\\HalvoroUpdate, "
    "new task Tavrin\\Halvoro update, new value SOFTWARE\\Tavrin\\Halvoro\\Lumaris Channel, "
    "new value SOFTWARE\\Tavrin\\Halvoro\\Lumaris ProductCode, "
    "new value SYSTEM\\CurrentControlSet\\Services\\EventLog\\Application\\HalvoroUpdate EventMessageFile, "
    "new value SYSTEM\\CurrentControlSet\\Services\\EventLog\\Application\\HalvoroUpdate TypesSupported";
constexpr char upgraded_things[] =
    "changed file %ProgramFiles%\\Tavrin\\Halvoro\\lumaris.exe, "
    "gone key SOFTWARE\\Microsoft\\Windows\\CurrentVersion\\Uninstall\\(first), "
    "new key SOFTWARE\\Microsoft\\Windows\\CurrentVersion\\Uninstall\\(newer), "
    "changed value SOFTWARE\\Tavrin\\Halvoro\\Lumaris ProductCode";

struct local_deleter {
    void operator()(void* memory) const noexcept { ::LocalFree(memory); }
};

std::string value_text(const wchar_t* key_name, const wchar_t* name) {
    pwrap::reg_key key;
    std::wstring text;
    if (key.open(HKEY_LOCAL_MACHINE, key_name, KEY_READ | KEY_WOW64_64KEY) != ERROR_SUCCESS ||
        pwrap::RegQueryStringValue(key.get(), name, text) != ERROR_SUCCESS) {
        return "none";
    }
    return utf8(text);
}

const char* there(bool is_there) noexcept {
    return is_there ? "there" : "none";
}

// The rights of a file or folder, as text.
std::string rights_of(const std::wstring& path) {
    PSECURITY_DESCRIPTOR found = nullptr;
    if (::GetNamedSecurityInfoW(path.c_str(), SE_FILE_OBJECT, DACL_SECURITY_INFORMATION, nullptr, nullptr,
                                nullptr, nullptr, &found) != ERROR_SUCCESS) {
        return "cannot be read";
    }
    const std::unique_ptr<void, local_deleter> owner(found);
    wchar_t* text = nullptr;
    if (::ConvertSecurityDescriptorToStringSecurityDescriptorW(
            found, SDDL_REVISION_1, DACL_SECURITY_INFORMATION, &text, nullptr) == 0) {
        return "cannot be told";
    }
    const std::unique_ptr<void, local_deleter> text_owner(text);
    return utf8(text);
}

// Does something with the rights of this user, who is not an administrator.
template <class Act> bool as_plain_user(Act&& act) {
    HANDLE opened = nullptr;
    if (::OpenProcessToken(::GetCurrentProcess(), TOKEN_DUPLICATE | TOKEN_QUERY | TOKEN_IMPERSONATE,
                           &opened) == 0) {
        throw pwrap::win_runtime_error("no token");
    }
    const pwrap::win_handle<0> token(opened);
    BYTE administrators[SECURITY_MAX_SID_SIZE];
    DWORD size = sizeof administrators;
    ::CreateWellKnownSid(WinBuiltinAdministratorsSid, nullptr, administrators, &size);
    SID_AND_ATTRIBUTES disabled{administrators, 0};
    HANDLE restricted = nullptr;
    if (::CreateRestrictedToken(token.get(), DISABLE_MAX_PRIVILEGE, 1, &disabled, 0, nullptr, 0, nullptr,
                                &restricted) == 0) {
        throw pwrap::win_runtime_error("no restricted token");
    }
    const pwrap::win_handle<0> plain(restricted);
    if (::ImpersonateLoggedOnUser(plain.get()) == 0) {
        throw pwrap::win_runtime_error("a plain user cannot be impersonated");
    }
    const bool done = act();
    ::RevertToSelf();
    return done;
}

// What a plain user can do in the folder where packages wait for the installer.
void see_rights(context& around, findings& found, const std::wstring& store) {
    found.see("rights.of the folder", "D:PAI(A;OICI;FA;;;SY)(A;OICI;FA;;;BA)(A;OICI;0x1200a9;;;BU)",
              rights_of(store));
    const std::wstring own = around.changes.work_folder() + L"planted.msi";
    write_file(own, "a package of somebody else");
    const std::wstring package = store + L"\\Halvoro.ARM64.msi";
    write_file(package, "a package");
    const auto attempt = [&](const char* name, auto&& act) {
        found.see(std::string("rights.") + name, "refused", as_plain_user(act) ? "done" : "refused");
    };
    attempt("writing into the package", [&] {
        const pwrap::win_handle<-1> file(::CreateFileW(package.c_str(), GENERIC_WRITE, FILE_SHARE_READ,
                                                       nullptr, OPEN_EXISTING, 0, nullptr));
        return static_cast<bool>(file);
    });
    attempt("adding a file", [&] {
        const std::wstring more = store + L"\\more.msi";
        const pwrap::win_handle<-1> file(
            ::CreateFileW(more.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_NEW, 0, nullptr));
        return static_cast<bool>(file);
    });
    attempt("linking a file",
            [&] { return ::CreateHardLinkW((store + L"\\linked.msi").c_str(), own.c_str(), nullptr) != 0; });
    attempt("swapping the package",
            [&] { return ::MoveFileExW(package.c_str(), (store + L"\\aside.msi").c_str(), 0) != 0; });
    attempt("swapping the folder",
            [&] { return ::MoveFileExW(store.c_str(), (store + L" aside").c_str(), 0) != 0; });
    // What could be done is taken back, or the installer would not find its folder.
    ::MoveFileExW((store + L" aside").c_str(), store.c_str(), 0);
    for (const wchar_t* const name :
         {L"\\more.msi", L"\\linked.msi", L"\\aside.msi", L"\\Halvoro.ARM64.msi"}) {
        delete_file(store + name);
    }
}

std::string setting(const std::wstring& xml, const std::wstring& name) {
    const std::size_t begin = xml.find(L"<" + name + L">");
    const std::size_t end = xml.find(L"</" + name + L">");
    return begin == std::wstring::npos || end == std::wstring::npos
               ? "not told"
               : utf8(xml.substr(begin + name.size() + 2, end - begin - name.size() - 2));
}

// Has the Task Scheduler run the task once, and waits for its end. The result of the program, or why it could not be run.
std::string run_task() {
    const auto nothing = [] {
        VARIANT value;
        ::VariantInit(&value);
        return value;
    };
    pwrap::com_obj<ITaskService> service;
    HRESULT result = service.create(CLSID_TaskScheduler, IID_ITaskService);
    if (SUCCEEDED(result)) {
        result = service->Connect(nothing(), nothing(), nothing(), nothing());
    }
    const auto text = [](const wchar_t* what) {
        return std::unique_ptr<OLECHAR, decltype(&::SysFreeString)>(::SysAllocString(what), ::SysFreeString);
    };
    ITaskFolder* opened = nullptr;
    if (SUCCEEDED(result)) {
        result = service->GetFolder(text(L"\\").get(), &opened);
    }
    pwrap::com_obj<ITaskFolder> folder;
    folder.reset(opened);
    IRegisteredTask* found = nullptr;
    if (SUCCEEDED(result)) {
        result = folder->GetTask(text(setup::task_path).get(), &found);
    }
    pwrap::com_obj<IRegisteredTask> task;
    task.reset(found);
    IRunningTask* started = nullptr;
    if (SUCCEEDED(result)) {
        result = task->Run(nothing(), &started);
    }
    if (FAILED(result)) {
        return "cannot be run: " + hexadecimal(static_cast<DWORD>(result));
    }
    pwrap::com_obj<IRunningTask> running;
    running.reset(started);
    for (int turn = 0; turn < 600; ++turn) {
        TASK_STATE state = TASK_STATE_RUNNING;
        if (FAILED(task->get_State(&state)) || state != TASK_STATE_RUNNING) {
            LONG last = -1;
            task->get_LastTaskResult(&last);
            return hexadecimal(static_cast<DWORD>(last));
        }
        ::Sleep(100);
    }
    return "does not end";
}

struct event_handle_closer {
    using pointer = EVT_HANDLE;
    void operator()(EVT_HANDLE handle) const noexcept { ::EvtClose(handle); }
};
using event_handle = std::unique_ptr<void, event_handle_closer>;

// The last event of the updater as the event viewer shows it.
std::string shown_event() {
    const event_handle query(::EvtQuery(nullptr, L"Application",
                                        L"*[System[Provider[@Name='HalvoroUpdate']]]",
                                        EvtQueryChannelPath | EvtQueryReverseDirection));
    EVT_HANDLE next = nullptr;
    DWORD count = 0;
    if (!query || ::EvtNext(query.get(), 1, &next, 5000, 0, &count) == 0) {
        return "none";
    }
    const event_handle last(next);
    const event_handle publisher(::EvtOpenPublisherMetadata(nullptr, L"HalvoroUpdate", nullptr, 0, 0));
    std::wstring text(4096, L'\0');
    DWORD used = 0;
    if (::EvtFormatMessage(publisher.get(), last.get(), 0, 0, nullptr, EvtFormatMessageEvent,
                           static_cast<DWORD>(text.size()), text.data(), &used) == 0) {
        return "not to be rendered";
    }
    text.resize(std::wcslen(text.c_str()));
    return utf8(text);
}

struct place {
    std::wstring program = environment_text(L"%ProgramFiles%\\Tavrin\\Halvoro\\lumaris.exe");
    std::wstring maker = environment_text(L"%ProgramFiles%\\Tavrin");
    std::wstring common = environment_text(L"%CommonProgramFiles%\\Tavrin");
    std::wstring store = common + L"\\Lumaris";
};

bool has_task() {
    std::wstring xml;
    return SUCCEEDED(setup::read_task(xml));
}

DWORD install(const context& around, const wchar_t* package, const wchar_t* properties) {
    return run_installer(L"/i \"" + around.folder + L"installers\\" + package + L"\" " + properties);
}

// The newer package brings the same program with something behind its last byte.
const char* which_program(const context& around, const std::wstring& path) {
    if (!path_exists(path)) {
        return "none";
    }
    const std::string own = read_file(around.program(L"src\\updater\\lumaris.exe"));
    const std::string installed = read_file(path);
    return installed == own ? "the first one" : installed == own + "newer" ? "the newer one" : "another one";
}

// What is there after the installation, and after each step that is to leave it there.
void see_installed(context& around, findings& found, const std::string& name, const place& at,
                   const char* program) {
    found.see(name + ".program", program, which_program(around, at.program));
    const std::string source = value_text(events_key, L"EventMessageFile");
    found.see(name + ".event source", "the program", source == utf8(at.program) ? "the program" : source);
    found.see(name + ".folder", "there", there(path_exists(at.store)));
    found.see(name + ".task", "there", there(has_task()));
    found.see(name + ".channel", "beta", value_text(updater_key, L"Channel"));
}

} // namespace

void check_installation(context& around, findings& found) {
    const pwrap::com_initializer com;
    const place at;
    // The installer needs one, and the last check's is gone.
    around.fresh_temporary_folder();
    around.changes.add_host_names({"updates.tavrin.example", "reports.tavrin.example"});
    for (const std::wstring& each : {at.maker, at.common}) {
        around.changes.will_make_folder(each);
    }
    around.changes.will_make_key(L"SOFTWARE\\Tavrin");
    around.changes.will_make_key(events_key);
    around.changes.will_make_task();
    const auto text = [&](const char* name) { return around.kit[name].get<std::string>(); };
    around.changes.will_install(wide(text("installed")));
    around.changes.will_install(wide(text("upgraded")));

    const places where{{L"%ProgramFiles%\\Tavrin", L"%CommonProgramFiles%\\Tavrin"},
                       {L"SOFTWARE\\Tavrin", events_key},
                       {L"SOFTWARE\\Microsoft\\Windows\\CurrentVersion\\Uninstall",
                        L"SOFTWARE\\Microsoft\\Windows\\CurrentVersion\\App Paths",
                        L"SYSTEM\\CurrentControlSet\\Services\\EventLog\\Application"},
                       {{text("installed"), "(first)"}, {text("upgraded"), "(newer)"}}};
    const snapshot nothing = take_snapshot(where);
    found.see_number("installation.exit", ERROR_SUCCESS, install(around, L"lumaris.msi", L"CHANNEL=beta"));
    see_installed(around, found, "installation", at, "the first one");
    found.see("installation.changes", installed_things, changes(nothing, take_snapshot(where)));
    std::wstring xml;
    setup::read_task(xml);
    found.see("task.not on battery", "false", setting(xml, L"DisallowStartIfOnBatteries"));
    found.see("task.ends on battery", "false", setting(xml, L"StopIfGoingOnBatteries"));
    found.see("task.makes up for a missed start", "true", setting(xml, L"StartWhenAvailable"));
    found.see("task.account", "S-1-5-18", setting(xml, L"UserId"));
    found.see("task.limit", "PT4H", setting(xml, L"ExecutionTimeLimit"));
    {
        web_server server(80);
        server.set_description(around.signed_file("same.txt"), around.signed_file("same.txt.minisig"));
        found.see("task.run", "0x00000000", run_task());
        found.see_number("task.requests", 2, server.targets().size());
        server.reset();
        around.fresh_temporary_folder();
        run_program(L"\"" + at.program + L"\"");
        const std::string shown = shown_event();
        found.see("event.as the event viewer shows it", "the program's text",
                  shown.find("Failed to load Minisign signature: 404") != std::string::npos &&
                          shown.find("Halvoro") != std::string::npos
                      ? "the program's text"
                      : shown);
    }
    see_rights(around, found, at.store);

    const snapshot first = take_snapshot(where);
    found.see_number("failing upgrade.exit", ERROR_INSTALL_FAILURE,
                     install(around, L"lumaris-failing.msi", L""));
    see_installed(around, found, "failing upgrade", at, "the first one");
    found.see("failing upgrade.changes", "none", changes(first, take_snapshot(where)));
    found.see_number("upgrade.exit", ERROR_SUCCESS, install(around, L"lumaris-next.msi", L""));
    see_installed(around, found, "upgrade", at, "the newer one");
    const snapshot newer = take_snapshot(where);
    found.see("upgrade.changes", upgraded_things, changes(first, newer));
    found.see_number("going back.exit", ERROR_INSTALL_FAILURE, install(around, L"lumaris.msi", L""));
    found.see("going back.changes", "none", changes(newer, take_snapshot(where)));

    found.see_number("removal.exit", ERROR_SUCCESS, run_installer(L"/x " + wide(text("upgraded"))));
    found.see("removal.program", "none", there(path_exists(at.maker)));
    found.see("removal.folder", "none", there(path_exists(at.common)));
    found.see("removal.event source", "none", value_text(events_key, L"EventMessageFile"));
    found.see("removal.task", "none", there(has_task()));
    found.see("removal.channel", "none", value_text(updater_key, L"Channel"));
    found.see("removal.changes", "none", changes(nothing, take_snapshot(where)));
}

} // namespace proof
