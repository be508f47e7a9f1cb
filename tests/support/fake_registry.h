// A fake HKEY_LOCAL_MACHINE for one test: Torvex.dll's RegOpenKeyExW,
// RegQueryValueExW and RegCloseKey imports are redirected to a table of keys
// and text values. A key that is not in the table does not exist.
#pragma once

#include <windows.h>

#include <map>
#include <string>
#include <vector>

#include "support/torvex_test.h"

namespace torvex::test {

class FakeRegistry {
public:
    FakeRegistry();
    ~FakeRegistry();
    FakeRegistry(const FakeRegistry&) = delete;
    FakeRegistry& operator=(const FakeRegistry&) = delete;

    void SetText(const std::wstring& subKey, const std::wstring& valueName, const std::wstring& text);
    void AddKey(const std::wstring& subKey);  // the key exists, with no values

    std::vector<REGSAM> OpenAccess() const;       // desired access of every open
    int OpenKeys() const;                         // keys opened and not yet closed

private:
    ImportPatch open_;
    ImportPatch query_;
    ImportPatch close_;
};

}  // namespace torvex::test
