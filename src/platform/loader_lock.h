// The lock of the system's loader, which is held while a library is loaded or unloaded, and which the end of a process needs. Any thread
// may take it, again and again as long as it gives it back as often. ntdll.dll exports these functions; no header of the platform declares them.
#pragma once

#include <windows.h>

extern "C" {

// Flags 0 waits for the lock. Flag 2 does not wait: `*result` is then 1 if the lock is held, and 2 if it is not. Returns an NTSTATUS,
// negative for a failure. `*cookie` is what unlocks it.
__declspec(dllimport) LONG NTAPI LdrLockLoaderLock(ULONG flags, ULONG* result, ULONG_PTR* cookie);
__declspec(dllimport) LONG NTAPI LdrUnlockLoaderLock(ULONG flags, ULONG_PTR cookie);

} // extern "C"
