#include "errorreport/note_list.h"

#include <stdexcept>

namespace corvo::errorreport {

void require_room(std::size_t count, std::size_t most) {
    if (count >= most) {
        throw std::length_error("list too long");
    }
}

void note_list::add(std::wstring note) {
    if (m_notes.size() >= limit) {
        m_notes.pop_front();
    }
    require_room(m_notes.size(), m_notes.max_size());
    m_notes.push_back(std::move(note));
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
