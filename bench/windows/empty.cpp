// The least that a program can do: what any start costs here.

#include <windows.h>

int WINAPI wWinMain(HINSTANCE, HINSTANCE, wchar_t*, int) {
    return 0;
}
