#include "errorreport/dialog_text.h"

#include "platform/errors.h"
#include "tests/stream/expect.h"
#include "tests/support/string_table.h"
#include "tests/support/substitutes.h"

#include <gtest/gtest.h>

#include <functional>
#include <span>

using corvo::errorreport::dialog_text;
using namespace std::string_literals;

namespace {

// The string table in one language, whatever the user's is.
class texts_in {
public:
    explicit texts_in(WORD language) : m_language(language) {}

private:
    WORD m_language;
    support::script<decltype(::LoadStringW)> m_script{
        support::LoadStringW, [this](HINSTANCE module, UINT id, wchar_t* buffer, int size) {
            EXPECT_EQ(::GetModuleHandleW(nullptr), module);
            EXPECT_EQ(0, size);
            return static_cast<int>(
                support::string_of(module, id, m_language, reinterpret_cast<const wchar_t**>(buffer)).size());
        }};
};

std::wstring question_about(const std::wstring& notes) {
    dialog_text text;
    text.add_question(notes);
    return text.get();
}

const std::wstring question =
    L"The programme will send an error report to Tavrin server now. May it attach the following text to "
    L"help development personnel resolve the issue a lot?\n";

class dialog_texts : public testing::Test {
protected:
    dialog_text text;
    texts_in language{support::english};
};

} // namespace

TEST_F(dialog_texts, begin_empty) {
    EXPECT_EQ(L"", text.get());
}

TEST_F(dialog_texts, introduce_the_program) {
    text.add_introduction(L"lumaris.exe");
    EXPECT_EQ(L"Unexpected error occurred while executing »lumaris.exe« programme or one of its modules.\n",
              text.get());
}

TEST_F(dialog_texts, take_the_programs_name_by_its_length_and_as_it_is) {
    text.add_introduction(std::wstring_view(L"100%s.exe and more", 9));
    EXPECT_EQ(L"Unexpected error occurred while executing »100%s.exe« programme or one of its modules.\n",
              text.get());
}

TEST_F(dialog_texts, ask_about_the_notes_each_on_a_line_of_its_own) {
    EXPECT_EQ(question + L"\nfirst", question_about(L"first\0"s));
    EXPECT_EQ(question + L"\nfirst\nsecond č\nthird", question_about(L"first\0second č\0third\0"s));
}

TEST_F(dialog_texts, ask_about_ten_notes) {
    EXPECT_EQ(question + L"\n1\n2\n3\n4\n5\n6\n7\n8\n9\n10", question_about(L"1\0"
                                                                            L"2\0"
                                                                            L"3\0"
                                                                            L"4\0"
                                                                            L"5\0"
                                                                            L"6\0"
                                                                            L"7\0"
                                                                            L"8\0"
                                                                            L"9\0"
                                                                            L"10\0"s));
}

TEST_F(dialog_texts, keep_a_line_for_an_empty_note) {
    EXPECT_EQ(question + L"\n", question_about(L"\0"s));
    EXPECT_EQ(question + L"\n\nsecond\n", question_about(L"\0second\0\0"s));
}

TEST_F(dialog_texts, show_a_note_of_100_units_whole) {
    const std::wstring note(100, L'x');
    EXPECT_EQ(question + L"\n" + note, question_about(note + L'\0'));
}

TEST_F(dialog_texts, cut_a_note_of_101_units) {
    const std::wstring note(100, L'x');
    EXPECT_EQ(question + L"\n" + note + L"...", question_about(note + L"y\0"s));
}

TEST_F(dialog_texts, cut_each_note_by_itself) {
    const std::wstring longer(5000, L'a');
    EXPECT_EQ(question + L"\n" + std::wstring(100, L'a') + L"...\nshort\n" + std::wstring(100, L'a') + L"...",
              question_about(longer + L"\0short\0"s + longer + L'\0'));
}

// Units are counted: half of a pair remains. A cut by characters would show 99 of them here.
TEST_F(dialog_texts, cut_through_a_surrogate_pair) {
    const std::wstring note = std::wstring(99, L'x') + L"\U0001F600";
    ASSERT_EQ(101U, note.size());
    EXPECT_EQ(question + L"\n" + std::wstring(99, L'x') + wchar_t{0xD83D} + L"...",
              question_about(note + L'\0'));
}

TEST_F(dialog_texts, leave_the_notes_as_they_are) {
    EXPECT_EQ(question + L"\n%s %n two\nlines", question_about(L"%s %n two\nlines\0"s));
}

TEST_F(dialog_texts, show_the_reply_to_an_accepted_report) {
    text.add_reply(true, L"Hvala, vemo že za to. 100%s");
    EXPECT_EQ(L"The programme sent technical error report to Tavrin server, which replied with:\n\n"
              L"Hvala, vemo že za to. 100%s",
              text.get());
}

TEST_F(dialog_texts, show_the_reply_to_a_report_that_was_not_accepted) {
    text.add_reply(false, L"Try later.");
    EXPECT_EQ(L"The programme sent technical error report to Tavrin server. However, the following issue "
              L"occurred during the receiving:\n\nTry later.",
              text.get());
}

TEST_F(dialog_texts, show_a_reply_by_its_length) {
    text.add_reply(true, std::wstring_view(L"abcdef", 3));
    EXPECT_EQ(L"The programme sent technical error report to Tavrin server, which replied with:\n\nabc",
              text.get());
}

TEST_F(dialog_texts, show_an_empty_reply) {
    text.add_reply(false, {});
    EXPECT_EQ(L"The programme sent technical error report to Tavrin server. However, the following issue "
              L"occurred during the receiving:\n\n",
              text.get());
}

TEST_F(dialog_texts, show_a_reply_longer_than_any_buffer) {
    const std::wstring reply(100000, L'č');
    text.add_reply(true, reply);
    EXPECT_EQ(L"The programme sent technical error report to Tavrin server, which replied with:\n\n" + reply,
              text.get());
}

TEST_F(dialog_texts, tell_that_the_report_was_saved) {
    text.add_failure();
    text.add_saved();
    EXPECT_EQ(
        L"The programme tried to send technical error report to Tavrin Server, but failed "
        L"unfortunately. It saved the error report to a file successfully and shall send it at its next "
        L"start.",
        text.get());
}

TEST_F(dialog_texts, tell_why_the_report_was_not_saved) {
    text.add_failure();
    text.add_not_saved("Napaka 100%s: ključ");
    EXPECT_EQ(L"The programme tried to send technical error report to Tavrin Server, but failed "
              L"unfortunately. It tried to save the error report to a file. However, this failed too: Napaka "
              L"100%s: ključ",
              text.get());
}

TEST_F(dialog_texts, end_after_an_empty_line) {
    text.add_introduction(L"a.exe");
    text.add_reply(true, L"Thanks.");
    text.add_end();
    EXPECT_EQ(
        L"Unexpected error occurred while executing »a.exe« programme or one of its modules.\n"
        L"The programme sent technical error report to Tavrin server, which replied with:\n\nThanks.\n\n"
        L"We sincerely apologize for the inconvenience. The programme will now close.",
        text.get());
}

TEST_F(dialog_texts, forget_the_question_when_it_is_cleared) {
    text.add_introduction(L"a.exe");
    text.add_question(L"note\0"s);
    text.clear();
    text.add_failure();
    EXPECT_EQ(L"The programme tried to send technical error report to Tavrin Server, but failed "
              L"unfortunately. ",
              text.get());
}

TEST(dialog_texts_in_slovenian, fit_the_same_pieces) {
    const texts_in language(support::slovenian);
    dialog_text text;
    text.add_introduction(L"lumaris.exe");
    text.add_reply(true, L"Hvala.");
    text.add_not_saved("Ni šlo.");
    text.add_end();
    EXPECT_EQ(L"Med izvajanjem programa »lumaris.exe« je v njem ali enemu izmed njegovih modulov prišlo do "
              L"nepričakovane napake.\n"
              L"Program je tehnično poročilo o napaki poslal Tavrinovemu strežniku, ki je vrnil naslednji "
              L"odgovor:\n\nHvala."
              L"Poročilo o napaki je poskusil shraniti v datoteko, a mu tudi to ni uspelo: Ni šlo."
              L"\n\nZa nevšečnosti se vam iskreno opravičujemo. Program se bo zdaj zaprl.",
              text.get());
}

// Also if the partner's name holds a percent sign, in texts that are formats and in one that is none.
TEST(dialog_texts_in_albanian, name_the_partner) {
    const texts_in language(support::albanian);
    dialog_text text;
    text.add_introduction(L"lumaris.exe");
    text.add_question(L"shënim\0"s);
    EXPECT_EQ(
        L"Gjatë ekzekutimit të programit »lumaris.exe« ndodhi një gabim i papritur në të ose në një nga "
        L"modulet e tij.\n"
        L"Programi do të dërgojë tani një raport gabimi te serveri i kompanisë Partneri \"Provë\" 100%. "
        L"A mund të shtojë në të edhe tekstin e mëposhtëm, që do ta ndihmonte shumë ekipin e zhvillimit "
        L"në zgjidhjen e problemit?\n\nshënim",
        text.get());
    text.clear();
    text.add_reply(true, L"Faleminderit.");
    EXPECT_EQ(L"Programi e dërgoi raportin teknik të gabimit te serveri i kompanisë Partneri \"Provë\" 100%, "
              L"i cili dha këtë përgjigje:\n\nFaleminderit.",
              text.get());
    text.clear();
    text.add_reply(false, L"Më vonë.");
    EXPECT_EQ(L"Programi e dërgoi raportin teknik të gabimit te serveri i kompanisë Partneri \"Provë\" 100%, "
              L"por gjatë marrjes së tij ndodhi problemi i mëposhtëm:\n\nMë vonë.",
              text.get());
    text.clear();
    text.add_failure();
    text.add_saved();
    EXPECT_EQ(
        L"Programi u përpoq ta dërgonte raportin teknik të gabimit te serveri i kompanisë Partneri "
        L"\"Provë\" 100%, por fatkeqësisht nuk ia doli. Ai e ruajti me sukses raportin e gabimit në një "
        L"skedar dhe do ta dërgojë gjatë nisjes së ardhshme.",
        text.get());
    text.clear();
    text.add_not_saved("Pa vend.");
    text.add_end();
    EXPECT_EQ(L"Ai u përpoq ta ruante raportin e gabimit në një skedar, por edhe kjo dështoi: Pa vend.\n\n"
              L"Ju kërkojmë sinqerisht ndjesë për shqetësimin. Programi tani do të mbyllet.",
              text.get());
}

namespace {

struct missing {
    UINT id;
    const char* failure;
    std::function<void(dialog_text&)> add;
};

const missing each_text[] = {
    {28658, "LoadString(IDS_ZEPHOLD_UVOD) failed",
     [](dialog_text& text) { text.add_introduction(L"a.exe"); }},
    {28659, "LoadString(IDS_ZEPHOLD_BESEDILO_DOD_OPIS) failed",
     [](dialog_text& text) { text.add_question(L"note\0"s); }},
    {28661, "LoadString(IDS_ZEPHOLD_REZULTAT/IDS_ZEPHOLD_REZULTAT_NAPAKA) failed",
     [](dialog_text& text) { text.add_reply(true, L"reply"); }},
    {28662, "LoadString(IDS_ZEPHOLD_REZULTAT/IDS_ZEPHOLD_REZULTAT_NAPAKA) failed",
     [](dialog_text& text) { text.add_reply(false, L"reply"); }},
    {28663, "LoadString(IDS_ZEPHOLD_REZULTAT_NAPAKA2) failed", [](dialog_text& text) { text.add_failure(); }},
    {28664, "LoadString(IDS_ZEPHOLD_SHRANJEVANJE) failed", [](dialog_text& text) { text.add_saved(); }},
    {28665, "LoadString(IDS_ZEPHOLD_SHRANJEVANJE_NAPAKA) failed",
     [](dialog_text& text) { text.add_not_saved("reason"); }},
    {28666, "LoadString(IDS_ZEPHOLD_ZAKLJUCEK) failed", [](dialog_text& text) { text.add_end(); }},
};

} // namespace

TEST(dialog_texts_that_are_missing, are_named_with_the_systems_reason) {
    for (const missing& each : each_text) {
        dialog_text text;
        text.add_introduction(L"kept.exe");
        const std::wstring kept = text.get();
        UINT asked = 0;
        const support::script load(support::LoadStringW, [&](HINSTANCE, UINT id, wchar_t*, int) {
            asked = id;
            ::SetLastError(1814);
            return 0;
        });
        try {
            each.add(text);
            ADD_FAILURE() << "nothing was thrown for " << each.id;
        } catch (const pwrap::win_runtime_error& error) {
            EXPECT_EQ(1814U, error.number()) << each.id;
            EXPECT_EQ(each.failure + (": " + pwrap::win_error_message(1814, 0)), error.what());
        }
        EXPECT_EQ(each.id, asked);
        EXPECT_EQ(kept, text.get()) << each.id;
    }
}
