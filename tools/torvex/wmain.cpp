// torvex.exe entry point.
#include <exception>

#include "tool.h"

int wmain(int argc, wchar_t** argv) {
    SetConsoleOutputCP(CP_UTF8);
    try {
        return tool::Run(std::vector<std::wstring>(argv + 1, argv + argc));
    } catch (const std::exception& e) {
        // Nothing the tool meets ends it uncaught: say what went wrong and refuse.
        tool::PrintError(std::string("torvex: ") + e.what());
        return tool::kExitRefused;
    }
}
