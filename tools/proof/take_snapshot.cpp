#include "tools/proof/take_snapshot.h"

#include "packaging/installer/scheduled_task.h"
#include "platform/errors.h"
#include "platform/handle.h"
#include "tools/proof/files.h"
#include "tools/proof/machine.h"

#include <windows.h>

#include <array>

namespace proof {

namespace {

// `shown` is the path as it is written in the snapshot.
void add_folder(snapshot& to, const std::wstring& path, const std::wstring& shown) {
    WIN32_FIND_DATAW each;
    const pwrap::find_file search(::FindFirstFileW((path + L"\\*").c_str(), &each));
    if (!search) {
        return;
    }
    to["folder " + utf8(shown)];
    do {
        const std::wstring name = std::wstring(L"\\") + each.cFileName;
        if (name == L"\\." || name == L"\\..") {
            continue;
        }
        if ((each.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0 &&
            (each.dwFileAttributes & FILE_ATTRIBUTE_REPARSE_POINT) == 0) {
            add_folder(to, path + name, shown + name);
        } else {
            to["file " + utf8(shown + name)] = read_file(path + name);
        }
    } while (::FindNextFileW(search.get(), &each) != 0);
}

[[noreturn]] void fail(LSTATUS status, const std::wstring& key) {
    throw pwrap::win_runtime_error(static_cast<DWORD>(status), ("cannot read " + utf8(key)).c_str());
}

std::vector<std::wstring> keys_in(HKEY key, const std::wstring& name) {
    std::vector<std::wstring> found;
    for (;;) {
        std::array<wchar_t, 256> text{};
        auto size = static_cast<DWORD>(text.size());
        const LSTATUS status = ::RegEnumKeyExW(key, static_cast<DWORD>(found.size()), text.data(), &size,
                                               nullptr, nullptr, nullptr, nullptr);
        if (status == ERROR_NO_MORE_ITEMS) {
            return found;
        }
        if (status != ERROR_SUCCESS) {
            fail(status, name);
        }
        found.emplace_back(text.data(), size);
    }
}

void add_values(snapshot& to, HKEY key, const std::wstring& name) {
    const std::string prefix = "value " + utf8(name) + " ";
    for (DWORD at = 0;; ++at) {
        std::vector<wchar_t> text(16384);
        std::string data(65536, '\0');
        auto text_size = static_cast<DWORD>(text.size());
        auto data_size = static_cast<DWORD>(data.size());
        DWORD type = 0;
        const LSTATUS status = ::RegEnumValueW(key, at, text.data(), &text_size, nullptr, &type,
                                               reinterpret_cast<BYTE*>(data.data()), &data_size);
        if (status == ERROR_NO_MORE_ITEMS) {
            return;
        }
        if (status != ERROR_SUCCESS) {
            fail(status, name);
        }
        data.resize(data_size);
        data.insert(0, std::to_string(type) + " ");
        std::string shown = prefix;
        shown += utf8({text.data(), text_size});
        to[shown] = data;
    }
}

void add_key(snapshot& to, const std::wstring& name, bool whole) {
    pwrap::reg_key key;
    const LSTATUS status = key.open(HKEY_LOCAL_MACHINE, name.c_str(), KEY_READ | KEY_WOW64_64KEY);
    if (status == ERROR_FILE_NOT_FOUND) {
        return;
    }
    if (status != ERROR_SUCCESS) {
        fail(status, name);
    }
    to["key " + utf8(name)];
    if (whole) {
        add_values(to, key.get(), name);
    }
    for (const std::wstring& each : keys_in(key.get(), name)) {
        std::wstring inner = name;
        inner.append(1, L'\\').append(each);
        if (whole) {
            add_key(to, inner, whole);
        } else {
            to["key " + utf8(inner)];
        }
    }
}

} // namespace

snapshot take_snapshot(const places& where) {
    snapshot seen;
    for (const std::wstring& each : where.folders) {
        add_folder(seen, environment_text(each.c_str()), each);
    }
    for (const std::wstring& each : where.keys) {
        add_key(seen, each, true);
    }
    for (const std::wstring& each : where.listed_keys) {
        add_key(seen, each, false);
    }
    if (std::wstring xml; SUCCEEDED(setup::read_task(xml))) {
        seen["task " + utf8(setup::task_path)] = utf8(xml);
    }
    snapshot result;
    for (const auto& [name, content] : seen) {
        std::string shown = name;
        for (const auto& [text, instead] : where.names) {
            if (const std::size_t at = shown.find(text); at != std::string::npos) {
                shown.replace(at, text.size(), instead);
            }
        }
        result[shown] = content;
    }
    return result;
}

} // namespace proof
