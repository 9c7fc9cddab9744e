// What the proof has changed on the machine, and how it is put back.
//
// Each change is written into a file, through to the disk, before it is made. So a proof that was killed has left a list of what it may
// have changed, and the next start puts that back first. Undoing is the same however often it is done, and goes from the last change to
// the first. The file lies in %ProgramData%\Lumaris proof, which goes with the last entry. One proof at a time; one thread.
#pragma once

#include "tools/proof/journal_text.h"

#include <windows.h>

#include <string>
#include <vector>

namespace proof {

class journal {
public:
    journal();

    // The folder for everything that the checks write. Made at its first use, and removed with all that is in it.
    const std::wstring& work_folder();

    // Whether an earlier proof has left something.
    bool is_empty() const;

    // Says first that these are to be removed, whoever makes them then. Folders go with all that is in them.
    void will_make_folder(const std::wstring& path);
    void will_make_file(const std::wstring& path);
    void will_make_key(const std::wstring& key); // below HKEY_LOCAL_MACHINE, with all that is below it
    void will_install(const std::wstring& product_code);
    void will_make_task();
    void will_make_key_container(const std::wstring& name);
    void will_trust(const std::wstring& thumbprint); // a certificate in the machine's ROOT store

    // Changes. They throw std::runtime_error when they cannot be made.
    void set_value(const std::wstring& key, const std::wstring& name, DWORD type, const void* data,
                   std::size_t size);
    void set_text(const std::wstring& key, const std::wstring& name, const std::wstring& text);
    void add_host_names(const std::vector<std::string>& names);

    // Undoes what was done since `mark()` said so, or everything. What could not be undone, each a sentence; it remains in the list.
    std::size_t mark() const noexcept { return m_entries.size(); }
    std::vector<std::string> undo(std::size_t mark = 0);

private:
    void add(journal_entry what);
    void write_all() const;
    void end_left_installers();

    std::wstring m_folder;
    std::wstring m_file;
    std::wstring m_work;
    std::vector<journal_entry> m_entries;
};

} // namespace proof
