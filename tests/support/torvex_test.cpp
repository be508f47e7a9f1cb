#include "support/torvex_test.h"

#include <gtest/gtest.h>

#include <cstring>
#include <mutex>
#include <set>

namespace torvex::test {

HMODULE TorvexModule() {
    // Loaded once for the whole test program and never unloaded, so that
    // import patches always address the same image.
    static HMODULE module = LoadLibraryW((ProgramDirectory() + L"\\Torvex.dll").c_str());
    return module;
}

ImportPatch::ImportPatch(const char* function, void* replacement, HMODULE module)
    : patch_(module, function, replacement) {
    if (!patch_.patched()) ADD_FAILURE() << "Torvex.dll does not import " << function;
}

bool Imports(const char* function, HMODULE module) { return sim::Imports(module, function); }

namespace {
std::wstring g_refusedText;
std::set<BSTR> g_liveStrings;

BSTR WINAPI RefusingSysAllocString(const OLECHAR* text) {
    if (text != nullptr && !g_refusedText.empty() && g_refusedText == text) return nullptr;
    BSTR string = SysAllocString(text);
    if (string != nullptr) g_liveStrings.insert(string);
    return string;
}

void WINAPI CountingSysFreeString(BSTR string) {
    g_liveStrings.erase(string);
    SysFreeString(string);
}
}  // namespace

BstrRefusal::BstrRefusal()
    : allocate_(Redirect("SysAllocString", &RefusingSysAllocString)),
      free_(Redirect("SysFreeString", &CountingSysFreeString)) {
    g_refusedText.clear();
    g_liveStrings.clear();
}

BstrRefusal::~BstrRefusal() { g_refusedText.clear(); }

void BstrRefusal::Refuse(const std::wstring& text) { g_refusedText = text; }

size_t BstrRefusal::LiveStrings() const { return g_liveStrings.size(); }

namespace {
std::mutex g_debugMutex;
std::vector<std::wstring> g_debugMessages;

void WINAPI CaptureOutputDebugStringW(LPCWSTR text) {
    std::lock_guard<std::mutex> lock(g_debugMutex);
    g_debugMessages.emplace_back(text != nullptr ? text : L"");
}
}  // namespace

DebugCapture::DebugCapture() : patch_(Redirect("OutputDebugStringW", &CaptureOutputDebugStringW)) { Clear(); }

DebugCapture::~DebugCapture() = default;

std::vector<std::wstring> DebugCapture::Messages() const {
    std::lock_guard<std::mutex> lock(g_debugMutex);
    return g_debugMessages;
}

void DebugCapture::Clear() {
    std::lock_guard<std::mutex> lock(g_debugMutex);
    g_debugMessages.clear();
}

bool DebugCapture::Contains(const std::wstring& text) const {
    for (const auto& message : Messages())
        if (message == text) return true;
    return false;
}

}  // namespace torvex::test
