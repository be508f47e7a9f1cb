// torvex.exe entry point.
#include <objbase.h>

#include <exception>

#include "tool.h"

int wmain(int argc, wchar_t** argv) {
    SetConsoleOutputCP(CP_UTF8);
    // The suite's services call the library from the multithreaded apartment;
    // so does the tool, so that the library meets COM as it does there (the
    // graphics driver's server is created only on a thread that has COM).
    CoInitializeEx(nullptr, COINIT_MULTITHREADED);
    try {
        return tool::Run(std::vector<std::wstring>(argv + 1, argv + argc));
    } catch (const std::exception& e) {
        // Nothing the tool meets ends it uncaught: say what went wrong and refuse.
        tool::PrintError(std::string("torvex: ") + e.what());
        return tool::kExitRefused;
    }
}
