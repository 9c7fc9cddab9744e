#include "tools/check/verdict.h"

#include <array>
#include <cstdio>
#include <string_view>

namespace check {

namespace {

struct known_message {
    std::string_view begin;
    const char* advice;
};

// The first that fits counts, so the longer ones come first. A "#" stands for a digit. docs/administrators.md has the same list.
constexpr std::array known_messages{
    known_message{"Failed to load Minisign signature: 404",
                  "Check the spelling of the channel; if it is right, tell the publisher that the signature "
                  "is missing."},
    known_message{
        "Failed to load Minisign signature: 407",
        "Give the proxy's user name and password (ProxyUporabnik and ProxyGeslo), or correct them."},
    known_message{
        "Failed to load Minisign signature: 401",
        "Give the proxy's user name and password (ProxyUporabnik and ProxyGeslo), or correct them."},
    known_message{
        "Failed to load Minisign signature: #",
        "That is the HTTP status of a server, a proxy or a filter: 403 and 451 are mostly a filter's, "
        "from which the update server must be exempt; 500 and above is the server's: try again later."},
    known_message{"Failed to load Minisign signature: WinHttp",
                  "Check name resolution, firewall and proxy (netsh winhttp show proxy): the update server "
                  "cannot be reached."},
    known_message{"Failed to load Minisign signature: larger than",
                  "What arrives is not a signature, often a page of a portal or filter: exempt the update "
                  "server from it."},
    known_message{"Failed to load Minisign signature: Minisign signature is too short",
                  "What arrives is not a signature, often a page of a portal or filter: exempt the update "
                  "server from it."},
    known_message{"Failed to load Minisign signature: not a Minisign signature",
                  "What arrives is not a signature, often a page of a portal or filter: exempt the update "
                  "server from it."},
    known_message{"Failed to load Minisign signature: ",
                  "The rest of the message says why; about a certificate it means that somebody opens TLS on "
                  "the way, or that the publisher's has run out."},
    known_message{"Failed to load content: package larger than",
                  "The server sends more than any package has: tell the publisher."},
    known_message{"Failed to load content: larger than",
                  "What arrives is not an update description: exempt the update server from the filter."},
    known_message{"Failed to load content: ", "The rest of the message says why; an HTTP status is the "
                                              "publisher's, a lost connection is the network's."},
    known_message{"Invalid Minisign signature",
                  "What arrives is not what was signed: try again, and tell "
                  "the publisher if it persists. Nothing is installed meanwhile."},
    known_message{"Untrusted Minisign key",
                  "Tell the publisher: it is signed with a key that this program does not trust."},
    known_message{"Unsupported Minisign signature", "Tell the publisher: it is signed in the old format."},
    known_message{"update URL unavailable", "Tell the publisher: the description names no package address."},
    known_message{"Failed to parse URL",
                  "Tell the publisher: the description's package address cannot be read."},
    known_message{"Unrecognized scheme",
                  "Tell the publisher: the description's package address is neither http nor https."},
    known_message{"Unsupported scheme",
                  "Tell the publisher: the description's package address is neither http nor https."},
    known_message{"Failed to create Common", "Make room, or remove the file that stands in the place of the "
                                             "folder Tavrin\\Lumaris below the common program files."},
    known_message{"Failed to open file",
                  "See who has the package open, and whether it is read-only; delete it if nobody has."},
    known_message{"SHGetKnownFolderPath", "The folder of the common program files is missing: make it."},
    known_message{"GetTempPath failed", "Set a shorter TMP: its path has more than 259 characters."},
    known_message{"encoding error",
                  "The channel has characters that an address cannot hold: use letters, digits, -, . and _."},
    known_message{"WinHttp", "The HTTP service of Windows does not work: restart the machine."},
};

bool begins_with(std::string_view message, std::string_view begin) noexcept {
    if (message.size() < begin.size()) {
        return false;
    }
    for (std::size_t at = 0; at < begin.size(); ++at) {
        const bool fits =
            begin[at] == '#' ? message[at] >= '0' && message[at] <= '9' : message[at] == begin[at];
        if (!fits) {
            return false;
        }
    }
    return true;
}

const char* word_for(state how) noexcept {
    switch (how) {
    case state::good:
        return "good";
    case state::note:
        return "note";
    case state::problem:
        return "problem";
    case state::unknown:
        break;
    }
    return "unknown";
}

const char* mark_for(state how) noexcept {
    switch (how) {
    case state::good:
        return "ok ";
    case state::note:
        return "   ";
    case state::problem:
        return "!! ";
    case state::unknown:
        break;
    }
    return "?? ";
}

std::string number(std::uint32_t code) {
    std::array<char, 16> text{};
    std::snprintf(text.data(), text.size(), code < 0x10000 ? "%u" : "0x%08X",
                  static_cast<unsigned int>(code));
    return text.data();
}

std::string quoted(const std::string& text) {
    std::string result = "\"";
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if (c == '"' || c == '\\') {
            result += '\\';
            result += c;
        } else if (byte < 0x20) {
            std::array<char, 8> escaped{};
            std::snprintf(escaped.data(), escaped.size(), "\\u%04x", static_cast<unsigned int>(byte));
            result += escaped.data();
        } else {
            result += c;
        }
    }
    return result + '"';
}

const finding* first_of(const findings& found, state how) noexcept {
    for (const finding& each : found.items) {
        if (each.how == how) {
            return &each;
        }
    }
    return nullptr;
}

const char* reason_for(std::uint32_t exit_code) noexcept {
    switch (exit_code) {
    case 2:
        return "this machine is not connected to the internet";
    case 3:
        return "the connection is metered";
    case 4:
        return "the connection is near or over its data limit";
    default:
        return "the connection is congested";
    }
}

verdict of_the_next_run(const findings& found) {
    const prediction& next = found.next_run;
    if (found.updates_off) {
        return {healthy, "Updates are switched off by an empty channel.",
                "Nothing, if that is intended; else set or delete the value Channel."};
    }
    if (!next.known) {
        return {
            healthy,
            "An update is offered: " + found.offered_version + " over " + found.own_version +
                "; its package was not fetched to its end, so whether the next run installs it is not known.",
            "Nothing; the task tries it. lumaris_check --download fetches the package and verifies it."};
    }
    if (next.installs) {
        return {healthy,
                "An update is due: the next run installs " + found.offered_version + " over " +
                    found.own_version + ".",
                "Nothing; the task does it."};
    }
    return {healthy,
            "Up to date: the channel " + found.channel + " offers nothing newer than " + found.own_version +
                ".",
            "Nothing."};
}

} // namespace

std::string advice_for(const std::string& message) {
    for (const known_message& each : known_messages) {
        if (begins_with(message, each.begin)) {
            return each.advice;
        }
    }
    return "The message names what failed first, and its causes after it.";
}

verdict judge(const findings& found) {
    const prediction& next = found.next_run;
    if (!next.message.empty()) {
        return {unhealthy, "The update check fails: " + next.message + ".", advice_for(next.message)};
    }
    if (const finding* const wrong = first_of(found, state::problem)) {
        return {unhealthy, "Not healthy: " + wrong->text + ".", wrong->advice};
    }
    if (next.exit_code != 0) {
        return {not_checkable,
                std::string("The update server was not asked: ") + reason_for(next.exit_code) +
                    ". A run ends with " + number(next.exit_code) + " then.",
                "Check again on another connection."};
    }
    if (const finding* const unknown = first_of(found, state::unknown)) {
        return {not_checkable, "Not everything could be looked at: " + unknown->text + ".", unknown->advice};
    }
    verdict judged = of_the_next_run(found);
    if (found.task_never_ran) {
        judged.exit_code = not_checkable;
        judged.sentence += " But the scheduled task has never run";
        judged.sentence +=
            found.task_next_run.empty() ? "." : "; it is planned for " + found.task_next_run + ".";
        judged.advice =
            R"(Start the task, schtasks /run /tn "Tavrin\Halvoro update", and check again when it has ended.)";
    } else if (!found.last_run_remark.empty()) {
        judged.sentence += " " + found.last_run_remark;
    }
    return judged;
}

std::string as_text(const findings& found, const verdict& judged) {
    std::string text = "Lumaris " + found.own_version + "\n\n";
    for (const finding& each : found.items) {
        const std::string name = each.name;
        text += mark_for(each.how) + name + std::string(name.size() < 16 ? 16 - name.size() : 1, ' ') +
                each.text + "\n";
    }
    return text + "\nVERDICT: " + judged.sentence + "\nWHAT TO DO: " + judged.advice + "\n";
}

std::string as_json(const findings& found, const verdict& judged) {
    const prediction& next = found.next_run;
    std::string text =
        "{\n  \"verdict\": {\"exit_code\": " + number(static_cast<std::uint32_t>(judged.exit_code)) +
        ", \"sentence\": " + quoted(judged.sentence) + ", \"advice\": " + quoted(judged.advice) +
        "},\n  \"next_run\": {\"exit_code\": " + std::to_string(next.exit_code) +
        ", \"message\": " + quoted(next.message) + ", \"installs\": " + (next.installs ? "true" : "false") +
        ", \"known\": " + (next.known ? "true" : "false") +
        "},\n  \"version\": " + quoted(found.own_version) +
        ",\n  \"offered\": " + quoted(found.offered_version) + ",\n  \"findings\": [";
    const char* separator = "\n";
    for (const finding& each : found.items) {
        text += std::string(separator) + "    {\"name\": " + quoted(each.name) +
                ", \"state\": " + quoted(word_for(each.how)) + ", \"text\": " + quoted(each.text) +
                ", \"advice\": " + quoted(each.advice) + "}";
        separator = ",\n";
    }
    return text + "\n  ]\n}\n";
}

} // namespace check
