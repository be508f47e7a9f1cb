// The tests release every record the library hands out as a host does, here.
#pragma once

#include <cstdlib>

namespace torvex::test {

// The C runtime's free, which pairs with the library's record allocator.
inline void FreeRecord(void* record) { std::free(record); }

}  // namespace torvex::test
