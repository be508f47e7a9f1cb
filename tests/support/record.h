// The tests release every record the library hands out as a host does, here.
#pragma once

#include "torvex/ucrt_heap.h"

namespace torvex::test {

// ucrtbase.dll's free, which pairs with the library's record allocator.
inline void FreeRecord(void* record) { torvex_ucrt_free(record); }

}  // namespace torvex::test
