#include "packaging/installer/scheduled_task.h"

#include "platform/handle.h"

// Before the header: its identifiers are defined here and nowhere else.
#include <initguid.h>
#include <oleauto.h>
#include <taskschd.h>

namespace setup {

namespace {

// A string of COM automation.
class automation_string {
public:
    explicit automation_string(const std::wstring& text)
        : m_text(::SysAllocStringLen(text.data(), static_cast<UINT>(text.size()))) {}
    automation_string() noexcept = default;
    automation_string(const automation_string&) = delete;
    automation_string& operator=(const automation_string&) = delete;
    ~automation_string() { ::SysFreeString(m_text); }

    BSTR get() const noexcept { return m_text; }
    BSTR* put() noexcept { return &m_text; }
    std::wstring text() const {
        return m_text != nullptr ? std::wstring(m_text, ::SysStringLen(m_text)) : std::wstring();
    }

private:
    BSTR m_text = nullptr;
};

VARIANT nothing() noexcept {
    VARIANT value;
    ::VariantInit(&value);
    return value;
}

bool is_missing(HRESULT result) noexcept {
    return result == HRESULT_FROM_WIN32(ERROR_FILE_NOT_FOUND) ||
           result == HRESULT_FROM_WIN32(ERROR_PATH_NOT_FOUND);
}

HRESULT open_root(pwrap::com_obj<ITaskFolder>& root) {
    pwrap::com_obj<ITaskService> service;
    HRESULT result = service.create(CLSID_TaskScheduler, IID_ITaskService);
    if (FAILED(result)) {
        return result;
    }
    result = service->Connect(nothing(), nothing(), nothing(), nothing());
    if (FAILED(result)) {
        return result;
    }
    ITaskFolder* folder = nullptr;
    const automation_string path(L"\\");
    result = service->GetFolder(path.get(), &folder);
    root.reset(SUCCEEDED(result) ? folder : nullptr);
    return result;
}

HRESULT open_task(pwrap::com_obj<IRegisteredTask>& task) {
    pwrap::com_obj<ITaskFolder> root;
    HRESULT result = open_root(root);
    if (FAILED(result)) {
        return result;
    }
    IRegisteredTask* found = nullptr;
    const automation_string path(task_path);
    result = root->GetTask(path.get(), &found);
    task.reset(SUCCEEDED(result) ? found : nullptr);
    return result;
}

// What a scheduler has answered. It may answer with a success code of its own, such as "has not run", instead of a value.
template <class T> std::optional<T> value_of(HRESULT result, T value, T in_its_place) {
    if (FAILED(result)) {
        return std::nullopt;
    }
    return result == S_OK ? value : in_its_place;
}

bool replace_once(std::wstring& text, std::wstring_view place, std::wstring_view value) {
    const std::size_t at = text.find(place);
    if (at == std::wstring::npos) {
        return false;
    }
    text.replace(at, place.size(), value);
    return true;
}

std::wstring escaped(std::wstring_view text) {
    std::wstring result;
    for (const wchar_t c : text) {
        switch (c) {
        case L'&':
            result += L"&amp;";
            break;
        case L'<':
            result += L"&lt;";
            break;
        case L'>':
            result += L"&gt;";
            break;
        default:
            result += c;
        }
    }
    return result;
}

bool two_digits_below(std::wstring_view text, int limit) noexcept {
    const auto digit = [](wchar_t c) { return c >= L'0' && c <= L'9'; };
    return digit(text[0]) && digit(text[1]) && (text[0] - L'0') * 10 + (text[1] - L'0') < limit;
}

} // namespace

bool is_time_of_day(std::wstring_view text) noexcept {
    return text.size() == 5 && text[2] == L':' && two_digits_below(text.substr(0, 2), 24) &&
           two_digits_below(text.substr(3), 60);
}

std::wstring task_xml(std::wstring_view model, std::wstring_view time, std::wstring_view program,
                      std::wstring_view mark) {
    std::wstring xml(model);
    // The file on disk is UTF-8 for people; what the Task Scheduler takes is UTF-16, as its first line says.
    const bool complete =
        replace_once(xml, L"T12:30:00<", L"T" + std::wstring(time) + L":00<") &&
        replace_once(xml, L"%ProgramFiles%\\Tavrin\\Halvoro\\lumaris.exe", escaped(program)) &&
        replace_once(xml, L"<RegistrationInfo>",
                     L"<RegistrationInfo>\n    <Source>" + escaped(mark) + L"</Source>");
    return complete ? xml : std::wstring();
}

HRESULT create_task(const std::wstring& xml) {
    pwrap::com_obj<ITaskFolder> root;
    HRESULT result = open_root(root);
    if (FAILED(result)) {
        return result;
    }
    const automation_string path(task_path);
    const automation_string definition(xml);
    IRegisteredTask* task = nullptr;
    result = root->RegisterTask(path.get(), definition.get(), TASK_CREATE, nothing(), nothing(),
                                TASK_LOGON_SERVICE_ACCOUNT, nothing(), &task);
    const pwrap::com_obj<IRegisteredTask> owner(SUCCEEDED(result) ? task : nullptr);
    return result == HRESULT_FROM_WIN32(ERROR_ALREADY_EXISTS) ||
                   result == HRESULT_FROM_WIN32(ERROR_FILE_EXISTS)
               ? S_FALSE
               : result;
}

HRESULT read_task(std::wstring& xml) {
    pwrap::com_obj<IRegisteredTask> task;
    HRESULT result = open_task(task);
    if (FAILED(result)) {
        return result;
    }
    automation_string text;
    result = task->get_Xml(text.put());
    if (SUCCEEDED(result)) {
        xml = text.text();
    }
    return result;
}

HRESULT read_task_state(task_state& state) {
    pwrap::com_obj<IRegisteredTask> task;
    const HRESULT result = open_task(task);
    if (FAILED(result)) {
        return result;
    }
    VARIANT_BOOL enabled = VARIANT_FALSE;
    state.enabled = SUCCEEDED(task->get_Enabled(&enabled)) && enabled != VARIANT_FALSE;
    LONG code = 0;
    const HRESULT asked_result = task->get_LastTaskResult(&code);
    state.last_result =
        value_of<std::uint32_t>(asked_result, static_cast<std::uint32_t>(code), 0x41303); // has not run
    double date = 0;
    const HRESULT asked_last = task->get_LastRunTime(&date);
    state.last_run = value_of<double>(asked_last, date, 0);
    date = 0;
    const HRESULT asked_next = task->get_NextRunTime(&date);
    state.next_run = value_of<double>(asked_next, date, 0);
    return S_OK;
}

HRESULT delete_task() {
    pwrap::com_obj<ITaskFolder> root;
    HRESULT result = open_root(root);
    if (FAILED(result)) {
        return result;
    }
    const automation_string path(task_path);
    result = root->DeleteTask(path.get(), 0);
    if (SUCCEEDED(result) || is_missing(result)) {
        const automation_string folder(task_folder);
        root->DeleteFolder(folder.get(), 0); // other tasks of the maker's keep it
    }
    return is_missing(result) ? S_FALSE : result;
}

} // namespace setup
