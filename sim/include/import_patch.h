// Rewrites entries of a loaded module's import address table, so that the
// module calls a replacement instead of the function it imports. This is how
// a machine is put beneath Torvex.dll without any hook inside the library.
#pragma once

#include <windows.h>

#include <vector>

namespace torvex::sim {

// Every import descriptor of the module that names the function ("name", or
// "dll!name" for the one from that DLL) is patched
// while the object lives; the destructor puts the original back.
class ImportPatch {
public:
    ImportPatch(HMODULE module, const char* function, void* replacement);
    ~ImportPatch();
    ImportPatch(const ImportPatch&) = delete;
    ImportPatch& operator=(const ImportPatch&) = delete;
    ImportPatch(ImportPatch&& other) noexcept;
    ImportPatch& operator=(ImportPatch&&) = delete;

    bool patched() const { return !slots_.empty(); }
    // What the slot held before: the real function, or an enclosing patch.
    void* original() const { return original_; }
    template <typename Fn>
    Fn Original() const {
        return reinterpret_cast<Fn>(original_);
    }

private:
    std::vector<void**> slots_;
    void* original_ = nullptr;
};

// True when the module imports the function by that name.
bool Imports(HMODULE module, const char* function);

}  // namespace torvex::sim
