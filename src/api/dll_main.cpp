// Library entry point. What the library sets up at load (its constant
// strings, the C and C++ runtimes linked into it) is torn down at unload by
// the C runtime's exit table, which runs after DllMain returns. One block is
// left to release here: the C++ runtime's emergency exception-handling pool
// (73 KB), which libstdc++ allocates at start-up and never frees on its own;
// a host that loads the library per task would lose it every time.
#include <windows.h>

namespace __gnu_cxx {
// libstdc++'s hook for freeing the memory it keeps for the life of a program
// (the emergency pool). Part of the statically linked runtime; no header
// declares it.
void __freeres();
}  // namespace __gnu_cxx

extern "C" BOOL WINAPI DllMain(HINSTANCE, DWORD reason, LPVOID reserved) {
    // A null reserved means FreeLibrary: the process goes on and wants its
    // memory back. At process exit the other threads were stopped wherever
    // they were, possibly inside the pool, and the memory goes with the
    // process anyway: leave it alone then.
    if (reason == DLL_PROCESS_DETACH && reserved == nullptr) __gnu_cxx::__freeres();
    return TRUE;
}
