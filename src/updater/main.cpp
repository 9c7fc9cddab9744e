// The program's entry: registers the event source during static initialisation, goes to the system's folder, waits for the reports of
// earlier crashes and runs once.

#include "updater/run.h"

#include "errorreport/error_reporting.h"
#include "platform/handle.h"
#include "platform/system_folder.h"

namespace {

// A null handle (registration failed) is legal: the program then does the same, silently.
const pwrap::event_log events(::RegisterEventSourceW(nullptr, L"HalvoroUpdate"));

} // namespace

int WINAPI wWinMain(HINSTANCE, HINSTANCE, wchar_t*, int) {
    pwrap::enter_system_folder(); // before anything is started by its name
    // An update may correct what crashed before, but first the crash is reported.
    corvo::errorreport::wait_for_start_up_thread();
    return corvo::updater::run(events.get());
}
