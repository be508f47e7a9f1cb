// Shared test support: every test program links Torvex.dll through its import
// library and calls the exports exactly as a host does. The operating system
// beneath the DLL is replaced per test by import redirection and registered
// COM classes, never by hooks inside the library.
#pragma once

#include <windows.h>

#include <string>
#include <vector>

#include "import_patch.h"
#include "support/handle_count.h"
#include "support/record.h"
#include "torvex.h"
#include "torvex/program_directory.h"

namespace torvex::test {

// The loaded Torvex.dll.
HMODULE TorvexModule();

// Directory of the running test program (where Torvex.dll and test DLLs live).
using torvex::ProgramDirectory;

// Rewrites Torvex.dll's import address table entries for one imported
// function for the lifetime of the object, then restores them. Every import
// descriptor that names the function is patched. A function the DLL does not
// import fails the current test.
class ImportPatch {
public:
    ImportPatch(const char* function, void* replacement, HMODULE module = TorvexModule());

    // The function the slot held before (the real one), for pass-through.
    template <typename Fn>
    Fn Original() const {
        return patch_.Original<Fn>();
    }
    bool patched() const { return patch_.patched(); }

private:
    sim::ImportPatch patch_;
};

// Typed convenience: Redirect("WlanOpenHandle", &FakeWlanOpenHandle).
template <typename Fn>
ImportPatch Redirect(const char* function, Fn* replacement) {
    return ImportPatch(function, reinterpret_cast<void*>(replacement));
}

// True when Torvex.dll imports the function by that name.
bool Imports(const char* function, HMODULE module = TorvexModule());

// Makes Torvex.dll's SysAllocString fail for one exact text while it lives
// (every other text is allocated as usual) and counts the strings the DLL
// allocated meanwhile and has not passed to SysFreeString.
class BstrRefusal {
public:
    BstrRefusal();
    ~BstrRefusal();
    void Refuse(const std::wstring& text);  // empty: refuse nothing
    size_t LiveStrings() const;

private:
    ImportPatch allocate_;
    ImportPatch free_;
};

// Collects what Torvex.dll sends to OutputDebugStringW while it lives.
class DebugCapture {
public:
    DebugCapture();
    ~DebugCapture();
    std::vector<std::wstring> Messages() const;
    void Clear();
    // True when some message equals text exactly.
    bool Contains(const std::wstring& text) const;

private:
    ImportPatch patch_;
};

}  // namespace torvex::test
