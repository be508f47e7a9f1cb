// torvex.exe entry point.
#include "tool.h"

int wmain(int argc, wchar_t** argv) {
    SetConsoleOutputCP(CP_UTF8);
    return tool::Run(std::vector<std::wstring>(argv + 1, argv + argc));
}
