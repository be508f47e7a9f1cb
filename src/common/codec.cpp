// The record heap: the C runtime's malloc and free (msvcrt.dll in this
// toolchain), which hosts use to release what the library hands them.
#include "common/codec.h"

#include <cstdlib>

#include "common/win_resource.h"

namespace torvex {

void* AllocateRecord(size_t bytes) { return std::malloc(bytes); }

void FreeRecord(void* record) { std::free(record); }

void RecordFree::operator()(void* record) const { FreeRecord(record); }

}  // namespace torvex
