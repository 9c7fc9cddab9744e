// What the program has noted about itself, for a crash to come: the newest ten texts, oldest first.
//
// Owns its texts. Holds no lock: error_reporting.h puts one around it.
#pragma once

#include <list>
#include <string>
#include <utility>
#include <vector>

namespace corvo::errorreport {

// Whether a container with `count` elements can hold one more: throws std::length_error "list too long" if not.
void require_room(std::size_t count, std::size_t most);

class note_list {
public:
    static constexpr std::size_t limit = 10;

    // A note on its way into the list, or out of it: made and destroyed by the caller, so that the list itself neither allocates
    // memory nor frees it. It holds one note, or none.
    class entry {
    public:
        explicit entry(std::wstring note) { m_notes.push_back(std::move(note)); }

    private:
        friend note_list;
        std::list<std::wstring> m_notes;
    };

    // Takes the note of the entry. When there are ten, the oldest is dropped for it and is left in the entry. Throws std::length_error
    // "list too long" if the container can hold no more.
    void exchange(entry& note);

    void swap(note_list& other) noexcept { m_notes.swap(other.m_notes); }

    // All notes one after another, oldest first, each with its terminating zero.
    [[nodiscard]] std::vector<wchar_t> joined() const;

private:
    std::list<std::wstring> m_notes;
};

} // namespace corvo::errorreport
