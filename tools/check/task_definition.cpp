#include "tools/check/task_definition.h"

#include "platform/handle.h"

// Before the header: its identifiers are defined here and nowhere else.
#include <initguid.h>
#include <shlwapi.h>
#include <xmllite.h>

#include <string_view>
#include <vector>

namespace check {

namespace {

bool is_false(std::wstring_view text) noexcept {
    return text == L"false" || text == L"0";
}

class definition_reader {
public:
    void begin(const wchar_t* name) {
        m_path += L'/';
        m_path += name;
        m_text.clear();
        constexpr std::wstring_view triggers = L"/Task/Triggers/";
        if (m_path.starts_with(triggers) && m_path.find(L'/', triggers.size()) == std::wstring::npos &&
            m_path != L"/Task/Triggers/CalendarTrigger" && m_path != L"/Task/Triggers/TimeTrigger") {
            found.starts_at_events = true;
        }
    }
    void text(const wchar_t* value) { m_text += value; }
    void end() {
        if (m_path == L"/Task/Actions/Exec/Command" && found.command.empty()) {
            found.command = m_text;
        } else if (m_path == L"/Task/Actions/Exec/Arguments" && found.arguments.empty()) {
            found.arguments = m_text;
        } else if (m_path == L"/Task/Settings/DisallowStartIfOnBatteries") {
            found.starts_on_battery = is_false(m_text);
        }
        m_path.erase(m_path.rfind(L'/'));
        m_text.clear();
    }

    task_definition found;

private:
    std::wstring m_path;
    std::wstring m_text;
};

// A reader at the beginning of the text; an empty one when there is none to be had.
pwrap::com_obj<IXmlReader> open_reader(const std::wstring& xml) {
    pwrap::com_obj<IXmlReader> reader;
    pwrap::com_obj<IStream> stream;
    stream.reset(::SHCreateMemStream(reinterpret_cast<const BYTE*>(xml.data()),
                                     static_cast<UINT>(xml.size() * sizeof(wchar_t))));
    IUnknown* input = nullptr;
    if (!stream || FAILED(::CreateXmlReaderInputWithEncodingName(stream.get(), nullptr, L"UTF-16", FALSE,
                                                                 nullptr, &input))) {
        return reader;
    }
    pwrap::com_obj<IUnknown> source;
    source.reset(input);
    void* made = nullptr;
    if (SUCCEEDED(::CreateXmlReader(IID_IXmlReader, &made, nullptr))) {
        reader.reset(static_cast<IXmlReader*>(made));
        if (FAILED(reader->SetInput(source.get()))) {
            reader.free();
        }
    }
    return reader;
}

} // namespace

std::optional<task_definition> read_definition(const std::wstring& xml) {
    const pwrap::com_obj<IXmlReader> reader = open_reader(xml);
    if (!reader) {
        return std::nullopt;
    }
    definition_reader definition;
    XmlNodeType kind = XmlNodeType_None;
    const wchar_t* text = nullptr;
    HRESULT result = S_OK;
    bool any = false;
    while ((result = reader->Read(&kind)) == S_OK) {
        if (kind == XmlNodeType_Element) {
            any = true;
            const bool is_empty = reader->IsEmptyElement() != FALSE;
            result = reader->GetLocalName(&text, nullptr);
            if (FAILED(result)) {
                return std::nullopt;
            }
            definition.begin(text);
            if (is_empty) {
                definition.end();
            }
        } else if (kind == XmlNodeType_EndElement) {
            definition.end();
        } else if ((kind == XmlNodeType_Text || kind == XmlNodeType_CDATA) &&
                   SUCCEEDED(reader->GetValue(&text, nullptr))) {
            definition.text(text);
        }
    }
    return FAILED(result) || !any ? std::nullopt : std::optional(definition.found);
}

std::wstring looked_for(const std::wstring& command) {
    std::wstring expanded;
    if (const DWORD size = ::ExpandEnvironmentStringsW(command.c_str(), nullptr, 0); size != 0) {
        expanded.resize(size);
        expanded.resize(::ExpandEnvironmentStringsW(command.c_str(), expanded.data(), size) - 1);
    }
    constexpr const wchar_t* around = L" \t\r\n\"";
    const std::size_t begin = expanded.find_first_not_of(around);
    return begin == std::wstring::npos
               ? std::wstring()
               : expanded.substr(begin, expanded.find_last_not_of(around) + 1 - begin);
}

} // namespace check
