#include "tools/report_reader/symbol_store.h"

#include "tools/report_reader/names.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <stdexcept>
#include <system_error>
#include <unistd.h>

namespace corvo::report_reader {

namespace {

namespace fs = std::filesystem;

// Missing folders are empty ones. Sorted, so that the same files always give the same answer.
std::vector<fs::path> entries_of(const fs::path& folder) {
    std::vector<fs::path> entries;
    std::error_code error;
    for (fs::directory_iterator at(folder, error), end; !error && at != end; at.increment(error)) {
        entries.push_back(at->path());
    }
    std::sort(entries.begin(), entries.end());
    return entries;
}

// The entries of that name, whatever their capitals.
std::vector<fs::path> named(const fs::path& folder, std::string_view name) {
    std::vector<fs::path> entries = entries_of(folder);
    std::erase_if(entries,
                  [name](const fs::path& entry) { return lower_case(entry.filename().string()) != name; });
    return entries;
}

bool is_file(const fs::path& path) {
    std::error_code error;
    return fs::is_regular_file(path, error);
}

std::string stamp_digits(std::uint32_t time_stamp) {
    std::array<char, 12> text{};
    std::snprintf(text.data(), text.size(), "%08X", time_stamp);
    return text.data();
}

// Programs of the module: those of the store's layout for this stamp, and those that simply lie there.
std::vector<fs::path> programs_in(const fs::path& folder, const std::string& module,
                                  std::uint32_t time_stamp) {
    std::vector<fs::path> programs;
    for (const fs::path& entry : named(folder, module)) {
        if (is_file(entry)) {
            programs.push_back(entry);
            continue;
        }
        for (const fs::path& build : entries_of(entry)) {
            if (lower_case(build.filename().string()).starts_with(lower_case(stamp_digits(time_stamp)))) {
                for (const fs::path& file : named(build, module)) {
                    programs.push_back(file);
                }
            }
        }
    }
    return programs;
}

std::vector<fs::path> pdbs_in(const fs::path& folder, const fs::path& program,
                              const program_identity& identity) {
    const std::string name = lower_case(identity.pdb_name);
    std::vector<fs::path> pdbs = named(program.parent_path(), name);
    for (const fs::path& entry : named(folder, name)) {
        for (const fs::path& build : named(entry, lower_case(identity.pdb_id))) {
            for (const fs::path& file : named(build, name)) {
                pdbs.push_back(file);
            }
        }
    }
    std::erase_if(pdbs, [](const fs::path& pdb) { return !is_file(pdb); });
    return pdbs;
}

} // namespace

std::string lower_case(std::string_view text) {
    std::string result(text);
    for (char& chr : result) {
        chr = chr >= 'A' && chr <= 'Z' ? static_cast<char>(chr - 'A' + 'a') : chr;
    }
    return result;
}

symbol_store::symbol_store(std::vector<fs::path> folders, std::size_t kept)
    : m_folders(std::move(folders)), m_kept(kept) {}

module_symbols* symbol_store::find(std::string_view module, std::uint32_t time_stamp) {
    const std::string name = lower_case(module);
    const auto known = std::find_if(m_loaded.begin(), m_loaded.end(), [&](const loaded& entry) {
        return entry.time_stamp == time_stamp && entry.module == name;
    });
    if (known != m_loaded.end()) {
        m_loaded.splice(m_loaded.begin(), m_loaded, known);
        return known->symbols.get();
    }
    // A module's name comes from the report: it must not lead out of the folder.
    const bool is_name = !name.empty() && name.find('/') == std::string::npos && name.front() != '.';
    m_loaded.push_front({name, time_stamp, is_name ? load(name, time_stamp) : nullptr});
    // Modules of the system, which have no symbols here, do not drive out those that have some.
    std::size_t with_symbols = 0;
    std::size_t without = 0;
    std::erase_if(m_loaded, [&](const loaded& entry) {
        return entry.symbols != nullptr ? ++with_symbols > m_kept : ++without > 1000;
    });
    return m_loaded.front().symbols.get();
}

std::unique_ptr<module_symbols> symbol_store::load(const std::string& module, std::uint32_t time_stamp) {
    for (const fs::path& folder : m_folders) {
        for (const fs::path& program : programs_in(folder, module, time_stamp)) {
            try {
                const program_identity identity = identify_program(program);
                if (identity.time_stamp != time_stamp) {
                    m_refusals.push_back(
                        program.string() + ": this is another build than the report's: its time stamp is " +
                        hexadecimal(identity.time_stamp) + ", and the report's " + hexadecimal(time_stamp));
                } else if (auto symbols = load_program(folder, program, identity)) {
                    return symbols;
                }
            } catch (const std::runtime_error& error) {
                m_refusals.emplace_back(error.what());
            }
        }
    }
    return nullptr;
}

std::unique_ptr<module_symbols> symbol_store::load_program(const fs::path& folder, const fs::path& program,
                                                           const program_identity& identity) {
    if (identity.pdb_name.empty()) {
        m_refusals.push_back(program.string() + ": this program names no PDB");
        return nullptr;
    }
    const std::vector<fs::path> pdbs = pdbs_in(folder, program, identity);
    for (const fs::path& pdb : pdbs) {
        try {
            return std::make_unique<module_symbols>(program, pdb);
        } catch (const std::runtime_error& error) {
            m_refusals.emplace_back(error.what());
        }
    }
    if (pdbs.empty()) {
        m_refusals.push_back(program.string() + ": there is no " + identity.pdb_name + " with the identity " +
                             identity.pdb_id);
    }
    return nullptr;
}

std::vector<code_chain> symbol_store::find(const report& what) {
    std::vector<code_chain> chains(what.frames.size());
    for (std::size_t index = 0; index < what.frames.size(); ++index) {
        const frame& shown = what.frames[index];
        const module_block& module = what.modules[shown.module];
        if (module_symbols* symbols = find(to_utf8(module.name), module.time_stamp)) {
            chains[index] = symbols->find(shown.offset, index > 0);
        }
    }
    return chains;
}

fs::path add_to_store(const fs::path& folder, const fs::path& file) {
    std::string id;
    if (lower_case(file.extension().string()) == ".pdb") {
        id = identify_pdb(file);
    } else {
        const program_identity identity = identify_program(file);
        std::array<char, 24> text{};
        std::snprintf(text.data(), text.size(), "%08X%x", identity.time_stamp, identity.size_of_image);
        id = text.data();
    }
    const fs::path target = folder / file.filename() / id / file.filename();
    fs::create_directories(target.parent_path());
    const fs::path part = target.string() + ".part" + std::to_string(::getpid());
    std::error_code ignored;
    try {
        fs::copy_file(file, part, fs::copy_options::overwrite_existing);
        fs::rename(part, target);
    } catch (...) {
        fs::remove(part, ignored);
        throw;
    }
    return target;
}

} // namespace corvo::report_reader
