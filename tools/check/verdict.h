// What was found on a machine, and the sentence that it comes to. Portable; judges and prints, and asks nobody.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace check {

enum class state { good, note, problem, unknown };

// One thing that was looked at. `name` is fixed and stands in the JSON; `text` is for people; `advice` says what to do about a problem, or why
// something could not be looked at. UTF-8.
struct finding {
    const char* name;
    state how;
    std::string text;
    std::string advice;
};

// What the program would do if it were started now.
struct prediction {
    std::uint32_t exit_code = 0; // its exit code, which for 2 to 5 and 0x80000001 is the id of its event, too
    std::string message;         // of its error event
    bool installs =
        false;         // whether it would start the installer: never true of a package that was not verified
    bool known = true; // false when a package is offered but was not fetched to its end
};

struct findings {
    std::vector<finding> items;
    prediction next_run;
    bool updates_off = false;
    std::string own_version;     // three numbers
    std::string offered_version; // likewise, empty when nothing is offered
    std::string channel;
    bool task_never_ran = false;
    std::string task_next_run;   // when a task that never ran is to run, empty when that is not known
    std::string last_run_remark; // a sentence about a last run that did not check, empty when there is none
};

// Exit codes of the check.
inline constexpr int healthy = 0;
inline constexpr int unhealthy = 1;
inline constexpr int not_checkable = 2;

struct verdict {
    int exit_code = healthy;
    std::string sentence;
    std::string advice;
};

// A failed check comes before what is wrong with the machine, and that before what could not be looked at. A machine that could be updated is not
// healthy yet when its task has never run: nothing has shown that it is.
verdict judge(const findings& found);

// What an administrator does about the message of an error event. Never empty.
std::string advice_for(const std::string& message);

std::string as_text(const findings& found, const verdict& judged);
std::string as_json(const findings& found, const verdict& judged);

} // namespace check
