// Snapshots of the places on this machine that an installer of Lumaris writes to. They throw pwrap::win_runtime_error with the path in its
// text. COM is initialised on the calling thread.
#pragma once

#include "tools/proof/snapshot.h"

#include <string>
#include <utility>
#include <vector>

namespace proof {

struct places {
    std::vector<std::wstring>
        folders; // with all that is in them; with the environment variables that they begin with
    std::vector<std::wstring> keys;        // below HKEY_LOCAL_MACHINE, with all that is in them
    std::vector<std::wstring> listed_keys; // of which only the names of the keys in them count

    // What is written in the place of texts that are others in each version.
    std::vector<std::pair<std::string, std::string>> names;
};

// The task of the updater belongs to every snapshot.
snapshot take_snapshot(const places& where);

} // namespace proof
