#include "tools/report_reader/pdb.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <spawn.h>
#include <stdexcept>
#include <sys/wait.h>
#include <system_error>
#include <unistd.h>
#include <utility>

namespace corvo::report_reader {

namespace {

constexpr std::string_view pdb_magic("Microsoft C/C++ MSF 7.00\r\n\x1A"
                                     "DS\0\0\0",
                                     32);

// Debian's name of the program, and the one it has elsewhere.
constexpr std::array programs{"llvm-pdbutil-19", "llvm-pdbutil"};

class file {
public:
    explicit file(std::FILE* handle) : m_handle(handle) {}
    ~file() {
        if (m_handle != nullptr) {
            std::fclose(m_handle);
        }
    }
    file(const file&) = delete;
    file& operator=(const file&) = delete;

    std::FILE* get() const noexcept { return m_handle; }
    explicit operator bool() const noexcept { return m_handle != nullptr; }

    std::string text_from_start() const {
        std::string text;
        std::array<char, 65536> piece{};
        bool failed = std::fseek(m_handle, 0, SEEK_SET) != 0;
        while (!failed && std::feof(m_handle) == 0) {
            text.append(piece.data(), std::fread(piece.data(), 1, piece.size(), m_handle));
            failed = std::ferror(m_handle) != 0;
        }
        if (failed) {
            throw std::system_error(errno, std::generic_category(), "a temporary file");
        }
        return text;
    }

private:
    std::FILE* m_handle;
};

std::string system_text(int error) {
    return std::generic_category().message(error);
}

void check_magic(const std::string& path) {
    const file pdb(std::fopen(path.c_str(), "rb"));
    if (!pdb) {
        throw std::runtime_error(path + ": " + system_text(errno));
    }
    std::array<char, 32> begin{};
    const std::size_t length = std::fread(begin.data(), 1, begin.size(), pdb.get());
    if (std::ferror(pdb.get()) != 0) {
        throw std::runtime_error(path + ": " + system_text(errno));
    }
    if (std::string_view(begin.data(), length) != pdb_magic) {
        throw std::runtime_error(path + ": this is no PDB");
    }
}

// An owner, for what goes wrong between initialising and starting.
class redirections {
public:
    redirections(std::FILE* out, std::FILE* errors) {
        posix_spawn_file_actions_init(&m_actions);
        posix_spawn_file_actions_addopen(&m_actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
        posix_spawn_file_actions_adddup2(&m_actions, fileno(out), STDOUT_FILENO);
        posix_spawn_file_actions_adddup2(&m_actions, fileno(errors), STDERR_FILENO);
    }
    ~redirections() { posix_spawn_file_actions_destroy(&m_actions); }
    redirections(const redirections&) = delete;
    redirections& operator=(const redirections&) = delete;

    const posix_spawn_file_actions_t* get() const noexcept { return &m_actions; }

private:
    posix_spawn_file_actions_t m_actions{};
};

// Starts the first of the programs that there is.
pid_t start(const std::string& path, std::FILE* out, std::FILE* errors) {
    const redirections actions(out, errors);
    int failure = ENOENT;
    for (const char* program : programs) {
        // A path that begins with a minus is not to be taken for an option.
        std::array<std::string, 8> words{program, "dump", "-section-headers", "-publics", "-symbols", "-l",
                                         "--",    path};
        std::array<char*, words.size() + 1> arguments{};
        for (std::size_t index = 0; index < words.size(); ++index) {
            arguments[index] = words[index].data();
        }
        pid_t process = 0;
        failure = posix_spawnp(&process, program, actions.get(), nullptr, arguments.data(), environ);
        if (failure == 0) {
            return process;
        }
        if (failure != ENOENT) {
            break;
        }
    }
    throw std::runtime_error(
        path + ": PDBs are read with llvm-pdbutil-19 (package llvm-19), which cannot be started: " +
        system_text(failure));
}

int wait_for(pid_t process) {
    int status = 0;
    while (waitpid(process, &status, 0) < 0) {
        if (errno != EINTR) {
            throw std::system_error(errno, std::generic_category(), "waitpid");
        }
    }
    return status;
}

char lower(char chr) noexcept {
    return chr >= 'A' && chr <= 'Z' ? static_cast<char>(chr - 'A' + 'a') : chr;
}

std::string stem(std::string_view path) {
    path.remove_prefix(path.rfind('/') + 1); // the whole of it where there is none: npos + 1 is 0
    std::string name(path.substr(0, path.rfind('.')));
    for (char& chr : name) {
        chr = lower(chr);
    }
    return name;
}

} // namespace

symbol_table read_pdb(const std::string& path) {
    check_magic(path);
    // Files, so that neither of the two outputs has to be read while the other one is full.
    const file out(std::tmpfile());
    const file errors(std::tmpfile());
    if (!out || !errors) {
        throw std::system_error(errno, std::generic_category(), "a temporary file");
    }
    const int status = wait_for(start(path, out.get(), errors.get()));
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
        std::string complaint = errors.text_from_start();
        complaint.erase(complaint.find_last_not_of("\r\n ") + 1);
        throw std::runtime_error(path + ": the PDB cannot be read: " +
                                 (WIFSIGNALED(status)
                                      ? "llvm-pdbutil ended by signal " + std::to_string(WTERMSIG(status))
                                      : complaint));
    }
    symbol_table table(out.text_from_start());
    if (table.empty()) {
        throw std::runtime_error(path + ": there are no functions in this PDB");
    }
    return table;
}

bool is_pdb_of(std::string_view path, std::string_view module) {
    return stem(path) == stem(module);
}

} // namespace corvo::report_reader
