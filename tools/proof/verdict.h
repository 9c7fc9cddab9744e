// What the checks of a proof saw, and what it comes to.
//
// Portable. What a real Windows is wanted to do stands in the checks. What Wine is known to do in its place stands in one table
// (differences.cpp), by the name of what is seen. Under Wine the table holds in both directions: something that is like Windows although
// the table says otherwise is a failure, too, and so is a line of the table that nothing was seen of. No state, any thread.
#pragma once

#include <deque>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace proof {

enum class system_kind { windows, wine_x64, wine_arm64 };

// A line of the table. `windows` is what the checks want of a real Windows, as the platform's maker documents it.
struct difference {
    std::string_view name;
    std::string_view wine_x64;
    std::string_view wine_arm64;
    std::string_view windows;
    std::string_view why;
};

std::span<const difference> known_differences() noexcept;

// The line with this name, or null.
const difference* find_difference(std::span<const difference> table, std::string_view name) noexcept;

// One thing that was seen. `wanted` is what this system is wanted to do: of Wine, what the table says.
struct observation {
    std::string name;
    std::string wanted;
    std::string seen;
    bool passed = false;
};

// A number or a text that nobody judges.
struct note {
    std::string name;
    std::string text;
};

// What one check saw.
class findings {
public:
    findings(system_kind system, std::span<const difference> table) noexcept
        : m_system(system), m_table(table) {}

    // `wanted` is what a real Windows is wanted to do.
    void see(std::string name, std::string wanted, std::string seen);
    void see_number(std::string name, unsigned long long wanted, unsigned long long seen);
    void note(std::string name, std::string text);

    system_kind system() const noexcept { return m_system; }
    const std::vector<observation>& seen() const noexcept { return m_seen; }
    const std::vector<struct note>& notes() const noexcept { return m_notes; }

private:
    system_kind m_system;
    std::span<const difference> m_table;
    std::vector<observation> m_seen;
    std::vector<struct note> m_notes;
};

// One check that was made. `broken` says why it could not be made to its end; that fails it.
struct made_check {
    std::string name;
    std::string shows;
    findings found;
    std::string broken;
    double seconds = 0;

    bool passed() const noexcept;
};

// The whole proof. References to its checks remain good while more are added.
struct proof_report {
    std::string version;   // of Lumaris
    std::string windows;   // name and build
    std::string processor; // and what the programs were built for
    system_kind system = system_kind::windows;
    bool complete = false; // all checks were made
    std::deque<made_check> checks;
    std::vector<std::string> left; // what could not be put back
    double seconds = 0;
};

// Lines of the table that a complete proof saw nothing of.
std::vector<std::string> unseen_differences(const proof_report& report, std::span<const difference> table);

bool passed(const proof_report& report, std::span<const difference> table);

std::string as_text(const proof_report& report, std::span<const difference> table);
std::string as_html(const proof_report& report, std::span<const difference> table);
std::string as_json(const proof_report& report, std::span<const difference> table);

} // namespace proof
