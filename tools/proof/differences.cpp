// The table of what Wine does in another way than Windows: the one place where this is written down. See verdict.h for how it is used.
// A check that fails on a real Windows and passes under Wine is either a fault of Lumaris or belongs in here with what was learnt.
#include "tools/proof/verdict.h"

#include <array>

namespace proof {

namespace {

constexpr char whole_way[] = "innermost, middle, outer, crash, wWinMain";
constexpr char walk[] =
    "StackWalk64 of the ARM64 Wine ends after one frame of a system library or two of a program";
constexpr char short_body[] = "WinHTTP of Wine takes a body that is shorter than announced for a whole one";
constexpr char late_byte[] = "Wine hands on the error of the socket, and Windows one of WinHTTP";
constexpr char no_server[] = "no credentials for TLS: Error 0x8009030D";
constexpr char tls_failed[] = "Failed to load Minisign signature: WinHttpSendRequest failed: Error 12157";
constexpr char no_reason[] =
    "Wine tells of every failure of TLS with one number, and never calls back with its reason";
constexpr char no_tasks[] = "the Task Scheduler of Wine keeps tasks and runs none";
constexpr char no_rights[] = "Wine does not enforce access rights against a restricted token";
constexpr char no_table[] =
    "Wine does not read the table MsiLockPermissionsEx, and translates the rights of files";
constexpr char no_rollback[] = "Wine does not bring back what a newer package has removed before it failed";
constexpr char no_upgrade[] =
    "Wine does not tell a package that a newer one removes it, and so its settings go with it";
constexpr char all_gone[] =
    "gone file %ProgramFiles%\\Tavrin\\Halvoro\\lumaris.exe, "
    "gone file %ProgramFiles%\\Tavrin\\Halvoro\\lumaris_check.exe, "
    "gone file %ProgramFiles%\\Tavrin\\Halvoro\\lumaris_notices.txt, "
    "gone folder %CommonProgramFiles%\\Tavrin\\Lumaris, "
    "gone folder %ProgramFiles%\\Tavrin, gone folder %ProgramFiles%\\Tavrin\\Halvoro, "
    "gone key SOFTWARE\\Microsoft\\Windows\\CurrentVersion\\Uninstall\\(first), "
    "gone key SOFTWARE\\Tavrin, gone key SOFTWARE\\Tavrin\\Halvoro, "
    "gone key SOFTWARE\\Tavrin\\Halvoro\\Lumaris, "
    "gone key SYSTEM\\CurrentControlSet\\Services\\EventLog\\Application\\HalvoroUpdate, "
    "gone task Tavrin\\Halvoro update, gone value SOFTWARE\\Tavrin\\Halvoro\\Lumaris Channel, "
    "gone value SOFTWARE\\Tavrin\\Halvoro\\Lumaris ProductCode, "
    "gone value SYSTEM\\CurrentControlSet\\Services\\EventLog\\Application\\HalvoroUpdate EventMessageFile, "
    "gone value SYSTEM\\CurrentControlSet\\Services\\EventLog\\Application\\HalvoroUpdate TypesSupported";
constexpr char upgraded[] = "changed file %ProgramFiles%\\Tavrin\\Halvoro\\lumaris.exe, "
                            "gone key SOFTWARE\\Microsoft\\Windows\\CurrentVersion\\Uninstall\\(first), "
                            "new key SOFTWARE\\Microsoft\\Windows\\CurrentVersion\\Uninstall\\(newer), "
                            "changed value SOFTWARE\\Tavrin\\Halvoro\\Lumaris ProductCode";
constexpr char upgraded_anew[] =
    "changed file %ProgramFiles%\\Tavrin\\Halvoro\\lumaris.exe, "
    "gone key SOFTWARE\\Microsoft\\Windows\\CurrentVersion\\Uninstall\\(first), "
    "new key SOFTWARE\\Microsoft\\Windows\\CurrentVersion\\Uninstall\\(newer), "
    "changed task Tavrin\\Halvoro update, gone value SOFTWARE\\Tavrin\\Halvoro\\Lumaris Channel, "
    "changed value SOFTWARE\\Tavrin\\Halvoro\\Lumaris ProductCode";
constexpr char if_called[] = "reported if any filter is called";

constexpr std::array table{
    difference{"crash.stack_overflow", if_called, if_called, "exit 0xFFFFFFFF, 0xC00000FD in innermost",
               "Wine calls a filter after a stack overflow only if the registers of the processor leave room "
               "on the stack"},
    difference{"crash.access_violation.functions", whole_way, "innermost, middle", whole_way, walk},
    difference{"crash.uncaught_exception.functions", whole_way, "none", whole_way, walk},
    difference{"crash.uncaught_exception_on_thread.functions", "innermost, middle, outer", "none",
               "innermost, middle, outer", walk},
    difference{"crash.exception_out_of_main.functions", "outer, crash, wWinMain", "none",
               "outer, crash, wWinMain", walk},
    difference{"crash.terminate.functions", whole_way, "none", whole_way, walk},
    difference{"crash.noexcept_violation.functions", "middle, outer, crash, wWinMain", "none",
               "middle, outer, crash, wWinMain", walk},
    difference{"crash.abort.functions", whole_way, "none", whole_way, walk},
    difference{"crash.pure_virtual_call.functions", "innermost, middle, unfinished, outer, crash, wWinMain",
               "none", "innermost, middle, unfinished, outer, crash, wWinMain", walk},
    difference{"crash.invalid_parameter.functions", whole_way, "none", whole_way, walk},
    difference{"crash.second_thread.functions", whole_way, "innermost, middle", whole_way, walk},
    difference{"crash.during_start_up.functions", whole_way, "innermost, middle", whole_way, walk},
    difference{"crash.in_atexit_function.functions", "innermost, middle, outer", "innermost, middle",
               "innermost, middle, outer", walk},
    difference{"crash.in_static_destructor.functions", "innermost, middle, outer", "innermost, middle",
               "innermost, middle, outer", walk},
    difference{"crash.on_thread_at_exit.functions", "innermost, middle, outer", "innermost, middle",
               "innermost, middle, outer", walk},
    difference{"crash.deep_recursion.functions", "innermost, outer", "innermost", "innermost, outer", walk},
    difference{"cut.event", "error 0x80000001 [Halvoro] [Invalid Minisign signature]",
               "error 0x80000001 [Halvoro] [Invalid Minisign signature]",
               "error 0x80000001 [Halvoro] [Failed to load content: WinHttpReadData failed: Error 12030]",
               short_body},
    difference{"cut.text", "Error checking for Halvoro programme update: Invalid Minisign signature",
               "Error checking for Halvoro programme update: Invalid Minisign signature",
               "Error checking for Halvoro programme update: Failed to load content: WinHttpReadData failed: "
               "Error 12030",
               short_body},
    difference{"time-out.event",
               "error 0x80000001 [Halvoro] [Failed to load content: WinHttpReadData failed: Error 10060]",
               "error 0x80000001 [Halvoro] [Failed to load content: WinHttpReadData failed: Error 10060]",
               "error 0x80000001 [Halvoro] [Failed to load content: WinHttpReadData failed: Error 12002]",
               late_byte},
    difference{"time-out.text",
               "Error checking for Halvoro programme update: Failed to load content: WinHttpReadData failed: "
               "Error 10060",
               "Error checking for Halvoro programme update: Failed to load content: WinHttpReadData failed: "
               "Error 10060",
               "Error checking for Halvoro programme update: Failed to load content: WinHttpReadData failed: "
               "Error 12002",
               late_byte},
    difference{"tls.server", no_server, no_server, "made",
               "SChannel of Wine takes no certificate for a server"},
    difference{"tls.handshake cut.text", tls_failed, tls_failed,
               "Failed to load Minisign signature: WinHttpSendRequest failed: Error 12030", no_reason},
    difference{"task.run", "cannot be run: 0x80004001", "cannot be run: 0x80004001", "0x00000000", no_tasks},
    difference{"task.requests", "0", "0", "2", no_tasks},
    difference{"event.as the event viewer shows it", "none", "none", "the program's text",
               "Wine keeps no event log"},
    difference{"rights.writing into the package", "done", "done", "refused", no_rights},
    difference{"rights.adding a file", "done", "done", "refused", no_rights},
    difference{"rights.linking a file", "done", "done", "refused", no_rights},
    difference{"rights.swapping the package", "done", "done", "refused", no_rights},
    difference{"rights.swapping the folder", "done", "done", "refused", no_rights},
    difference{"task.account", "not told", "not told", "S-1-5-18", no_tasks},
    difference{"rights.of the folder",
               "D:(A;OICI;FA;;;SY)(A;OICI;FA;;;S-1-5-21-0-0-0-1000)(A;OICI;0x1200a9;;;WD)",
               "D:(A;OICI;FA;;;SY)(A;OICI;FA;;;S-1-5-21-0-0-0-1000)(A;OICI;0x1200a9;;;WD)",
               "D:PAI(A;OICI;FA;;;SY)(A;OICI;FA;;;BA)(A;OICI;0x1200a9;;;BU)", no_table},
    difference{"failing upgrade.program", "none", "none", "the first one", no_rollback},
    difference{"failing upgrade.event source", "none", "none", "the program", no_rollback},
    difference{"failing upgrade.folder", "none", "none", "there", no_rollback},
    difference{"failing upgrade.task", "none", "none", "there", no_rollback},
    difference{"failing upgrade.channel", "none", "none", "beta", no_rollback},
    difference{"failing upgrade.changes", all_gone, all_gone, "none", no_rollback},
    difference{"upgrade.channel", "none", "none", "beta", no_upgrade},
    difference{"upgrade.changes", upgraded_anew, upgraded_anew, upgraded, no_upgrade},
};

} // namespace

std::span<const difference> known_differences() noexcept {
    return table;
}

} // namespace proof
