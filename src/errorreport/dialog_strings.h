// Identifiers of the texts that the error reporting shows, in the program's string table (resources/strings.rc.in). For the
// resource compiler, too, which knows only macros.
//
// Those with %.*ls or %hs are formats; the texts' translators keep these. 28660 is not used.
#pragma once

// NOLINTBEGIN(modernize-macro-to-enum): the resource compiler reads them
#define IDS_ZEPHOLD_JEZIK 28656               // language code of the texts, for the report server
#define IDS_ZEPHOLD_NASLOV 28657              // caption
#define IDS_ZEPHOLD_UVOD 28658                // format: length of the program's name, the name
#define IDS_ZEPHOLD_BESEDILO_DOD_OPIS 28659   // question about the notes
#define IDS_ZEPHOLD_REZULTAT 28661            // format: length of the server's reply, the reply
#define IDS_ZEPHOLD_REZULTAT_NAPAKA 28662     // the same, when something went wrong
#define IDS_ZEPHOLD_REZULTAT_NAPAKA2 28663    // the report could not be sent
#define IDS_ZEPHOLD_SHRANJEVANJE 28664        // it was saved
#define IDS_ZEPHOLD_SHRANJEVANJE_NAPAKA 28665 // format: why it was not, a narrow text
#define IDS_ZEPHOLD_ZAKLJUCEK 28666           // the end
// NOLINTEND(modernize-macro-to-enum)
