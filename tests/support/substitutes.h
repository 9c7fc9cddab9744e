// The imported functions that unit tests may replace, one substitute each; see substitute.h. GetProcAddress
// is not among them: the substitutes find the real functions with it.
#pragma once

#include "tests/support/substitute.h"

#define SECURITY_WIN32
#include <windows.h>

#include <dbghelp.h>
#include <objbase.h>
#include <psapi.h>
#include <security.h>
#include <shellapi.h>
#include <shlobj.h>
#include <winhttp.h>

#include <cstdio>
#include <cwchar>

extern "C" __declspec(dllimport) void NTAPI RtlGetNtVersionNumbers(ULONG* major, ULONG* minor, ULONG* build);

// clang-format off
#define LUMARIS_SUBSTITUTES(X)                                                                                          \
    X("kernel32.dll", CreateFileW)          X("kernel32.dll", ReadFile)            X("kernel32.dll", WriteFile)        \
    X("kernel32.dll", CloseHandle)          X("kernel32.dll", SetFilePointer)      X("kernel32.dll", GetFileSize)      \
    X("kernel32.dll", FlushFileBuffers)     X("kernel32.dll", LockFile)            X("kernel32.dll", UnlockFile)       \
    X("kernel32.dll", SetEndOfFile)         X("kernel32.dll", GetFileTime)         X("kernel32.dll", SetFileTime)      \
    X("kernel32.dll", GetTempPathW)         X("kernel32.dll", CreateDirectoryW)    X("kernel32.dll", FindClose)        \
    X("kernel32.dll", FormatMessageW)       X("kernel32.dll", LoadLibraryW)        X("kernel32.dll", FreeLibrary)      \
    X("kernel32.dll", LocalFree)            X("kernel32.dll", WideCharToMultiByte) X("kernel32.dll", MultiByteToWideChar)\
    X("kernel32.dll", ExpandEnvironmentStringsW) X("kernel32.dll", GetModuleFileNameW) X("kernel32.dll", GetACP)       \
    X("kernel32.dll", WaitForSingleObject)  X("kernel32.dll", ReleaseMutex)        X("kernel32.dll", CreateEventW)     \
    X("kernel32.dll", SetEvent)             X("kernel32.dll", GetCommandLineW)                                         \
    X("advapi32.dll", RegOpenKeyExW)        X("advapi32.dll", RegQueryValueExW)    X("advapi32.dll", RegCloseKey)      \
    X("advapi32.dll", RegisterEventSourceW) X("advapi32.dll", ReportEventW)        X("advapi32.dll", DeregisterEventSource)\
    X("advapi32.dll", OpenProcessToken)     X("advapi32.dll", GetTokenInformation)                                     \
    X("advapi32.dll", AllocateAndInitializeSid) X("advapi32.dll", EqualSid)        X("advapi32.dll", FreeSid)          \
    X("ole32.dll", CoInitialize)            X("ole32.dll", CoUninitialize)         X("ole32.dll", CoCreateInstance)    \
    X("ole32.dll", CoTaskMemFree)           X("shell32.dll", ShellExecuteW)                                            \
    X("shell32.dll", CommandLineToArgvW)    X("user32.dll", GetProcessWindowStation)                                   \
    X("user32.dll", GetUserObjectInformationW)    X("ntdll.dll", RtlGetNtVersionNumbers)                               \
    X("user32.dll", LoadStringW)            X("user32.dll", MessageBoxIndirectW)   X("user32.dll", SystemParametersInfoW)\
    X("winhttp.dll", WinHttpOpen)           X("winhttp.dll", WinHttpSetTimeouts)   X("winhttp.dll", WinHttpConnect)    \
    X("winhttp.dll", WinHttpOpenRequest)    X("winhttp.dll", WinHttpCloseHandle)   X("winhttp.dll", WinHttpSetOption)  \
    X("winhttp.dll", WinHttpSetStatusCallback) X("winhttp.dll", WinHttpAddRequestHeaders)                              \
    X("winhttp.dll", WinHttpSendRequest)    X("winhttp.dll", WinHttpReceiveResponse) X("winhttp.dll", WinHttpQueryHeaders)\
    X("kernel32.dll", GetTickCount64)       X("kernel32.dll", Sleep)                                                   \
    X("kernel32.dll", GetFileType)          X("kernel32.dll", GetFileInformationByHandle)                              \
    X("kernel32.dll", GetFileInformationByHandleEx)                                                                    \
    X("kernel32.dll", WaitForMultipleObjects)                                                                            \
    X("kernel32.dll", CreateThread)         X("kernel32.dll", TerminateThread)     X("kernel32.dll", TerminateProcess) \
    X("kernel32.dll", CreateMutexW)         X("kernel32.dll", RaiseException)                                          \
    X("kernel32.dll", FindFirstFileExW)     X("kernel32.dll", FindNextFileW)                                           \
    X("ole32.dll", CoInitializeEx)                                                                                     \
    X("kernel32.dll", SetUnhandledExceptionFilter) X("kernel32.dll", VirtualQuery) X("kernel32.dll", IsBadCodePtr)     \
    X("dbghelp.dll", StackWalk64)           X("dbghelp.dll", SymGetModuleBase64)   X("dbghelp.dll", ImageNtHeader)     \
    X("dbghelp.dll", SymGetOptions)         X("dbghelp.dll", SymSetOptions)        X("dbghelp.dll", SymInitialize)     \
    X("dbghelp.dll", SymCleanup)                                                                                       \
    X("winhttp.dll", WinHttpReadData)       X("winhttp.dll", WinHttpWriteData)     X("winhttp.dll", WinHttpQueryDataAvailable)

// Functions whose headers do not declare them as imported, so that everything calls them without an import pointer: the
// unit-test program defines them itself.
#define LUMARIS_DIRECT_SUBSTITUTES(X)                                                                                  \
    X("kernel32.dll", K32GetMappedFileNameW)                                                                           \
    X("ucrtbase.dll", __stdio_common_vsprintf) X("ucrtbase.dll", __stdio_common_vswprintf)                             \
    X("secur32.dll", GetUserNameExW)           X("shell32.dll", SHGetKnownFolderPath)
// clang-format on

namespace support {

#define LUMARIS_DECLARE(library, name) extern substitute<decltype(::name)> name;
LUMARIS_SUBSTITUTES(LUMARIS_DECLARE)
LUMARIS_DIRECT_SUBSTITUTES(LUMARIS_DECLARE)
#undef LUMARIS_DECLARE

} // namespace support
