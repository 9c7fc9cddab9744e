#include "updater/description.h"

#include "platform/format.h"

namespace corvo::updater {

std::string description_path(const char* windows_version, const std::wstring& channel) {
    std::string path;
    if (windows_version != nullptr) {
        pwrap::sprintf(path, "/Halvoro/Lumaris/%s-%ls.txt", windows_version, channel.c_str());
    } else {
        pwrap::sprintf(path, "/Halvoro/Lumaris-%ls.txt", channel.c_str());
    }
    return path;
}

} // namespace corvo::updater
