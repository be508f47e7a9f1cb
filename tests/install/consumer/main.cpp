// A host that finds Torvex with find_package and links Torvex::Torvex.
#include <cstdio>

#include "torvex.h"

int main() {
    if (MbInit() != 1) return 1;
    void* out = nullptr;
    if (HalInit(2, &out) != 0 || out != nullptr) return 2;
    std::puts("consumer linked Torvex::Torvex");
    return 0;
}
