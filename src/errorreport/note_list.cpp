#include "errorreport/note_list.h"

#include <stdexcept>

namespace corvo::errorreport {

void require_room(std::size_t count, std::size_t most) {
    if (count >= most) {
        throw std::length_error("list too long");
    }
}

void note_list::exchange(entry& note) {
    const bool full = m_notes.size() >= limit;
    if (!full) {
        require_room(m_notes.size(), m_notes.max_size());
    }
    m_notes.splice(m_notes.end(), note.m_notes);
    if (full) {
        note.m_notes.splice(note.m_notes.end(), m_notes, m_notes.begin());
    }
}

std::vector<wchar_t> note_list::joined() const {
    std::vector<wchar_t> units;
    for (const std::wstring& note : m_notes) {
        units.insert(units.end(), note.begin(), note.end());
        units.push_back(L'\0');
    }
    return units;
}

} // namespace corvo::errorreport
