#include <windows.h>

namespace {

// Five minutes pass in five seconds, or as many as the program's build says. Shorter limits, and waits without one, are as they are.
#ifndef FIVE_MINUTES
#define FIVE_MINUTES 5000
#endif

DWORD WINAPI wait_hurried(DWORD count, const HANDLE* objects, BOOL all, DWORD limit) {
    return ::WaitForMultipleObjectsEx(count, objects, all, limit == 300000 ? FIVE_MINUTES : limit, FALSE);
}

} // namespace

// The linker takes this import pointer before the one of the import library.
#pragma clang diagnostic ignored "-Wreserved-identifier"
extern "C" {
extern decltype(&::WaitForMultipleObjects) const __imp_WaitForMultipleObjects;
decltype(&::WaitForMultipleObjects) const __imp_WaitForMultipleObjects = &wait_hurried;
}
