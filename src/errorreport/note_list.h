// What the program has noted about itself, for a crash to come: the newest ten texts, oldest first.
//
// Owns its texts. Holds no lock: error_reporting.h puts one around it.
#pragma once

#include <list>
#include <string>
#include <vector>

namespace corvo::errorreport {

// Whether a container with `count` elements can hold one more: throws std::length_error "list too long" if not.
void require_room(std::size_t count, std::size_t most);

class note_list {
public:
    static constexpr std::size_t limit = 10;

    // Drops the oldest note when there are ten. Throws std::length_error "list too long" if the container can hold no
    // more.
    void add(std::wstring note);

    void clear() noexcept { m_notes.clear(); }

    // All notes one after another, oldest first, each with its terminating zero.
    [[nodiscard]] std::vector<wchar_t> joined() const;

private:
    std::list<std::wstring> m_notes;
};

} // namespace corvo::errorreport
