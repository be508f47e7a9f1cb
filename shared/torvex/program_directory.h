// Where the running program lives: Torvex.dll looks for the enclave service
// there, the tool and the tests for Torvex.dll and their own files.
#pragma once

#include <windows.h>
#include <pathcch.h>

#include <string>

namespace torvex {

// "C:\dir" for "C:\dir\torvex.exe"; empty when the program's path cannot be
// read or holds no file name to remove.
inline std::wstring ProgramDirectory() {
    wchar_t path[MAX_PATH] = {};
    if (::GetModuleFileNameW(nullptr, path, MAX_PATH) == 0 || ::PathCchRemoveFileSpec(path, MAX_PATH) != S_OK)
        return {};
    return path;
}

}  // namespace torvex
