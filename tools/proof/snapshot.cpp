#include "tools/proof/snapshot.h"

namespace proof {

std::string changes(const snapshot& before, const snapshot& after) {
    std::map<std::string, const char*> words;
    for (const auto& [name, content] : before) {
        const auto now = after.find(name);
        if (now == after.end()) {
            words[name] = "gone ";
        } else if (now->second != content) {
            words[name] = "changed ";
        }
    }
    for (const auto& [name, content] : after) {
        if (!before.contains(name)) {
            words[name] = "new ";
        }
    }
    std::string text;
    for (const auto& [name, word] : words) {
        text += (text.empty() ? "" : ", ") + (word + name);
    }
    return text.empty() ? "none" : text;
}

} // namespace proof
