// The scheduled task that starts the updater, as the Task Scheduler's own interface sees it.
//
// Portable half: the task's XML. The rest needs COM initialised on the calling thread and reports an HRESULT; nothing throws but
// std::bad_alloc.
#pragma once

#include <windows.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace setup {

inline constexpr wchar_t task_folder[] = L"Tavrin";
inline constexpr wchar_t task_path[] = L"Tavrin\\Halvoro update";

// Whether the text is a time of day that a task can begin at: "07:05", two digits each.
bool is_time_of_day(std::wstring_view text) noexcept;

// The task's XML: `model` with the time of day, the program and a mark of who made it. Empty when the model lacks one of their places.
std::wstring task_xml(std::wstring_view model, std::wstring_view time, std::wstring_view program,
                      std::wstring_view mark);

// Registers the task to run as SYSTEM, unless one of this name exists: that one may have been changed by an administrator and remains. Returns
// S_OK when it was made and S_FALSE when there was one.
HRESULT create_task(const std::wstring& xml);

// Puts the XML of the registered task into `xml`. HRESULT_FROM_WIN32(ERROR_FILE_NOT_FOUND or ERROR_PATH_NOT_FOUND) when there is none.
HRESULT read_task(std::wstring& xml);

// What the Task Scheduler knows of the task's past and future. Times are OLE automation dates in local time, and 0 for a run that never was or is
// not planned. Nothing stands for what a scheduler cannot say.
struct task_state {
    bool enabled = false;
    std::optional<std::uint32_t>
        last_result; // an exit code, or one of the scheduler's own: 0x41303 before the first run
    std::optional<double> last_run;
    std::optional<double> next_run;
};
HRESULT read_task_state(task_state& state);

// Removes the task, and its folder when nothing else is in it. S_FALSE when there was none.
HRESULT delete_task();

} // namespace setup
