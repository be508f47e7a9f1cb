// The record heap: ucrtbase.dll's malloc and free, the runtime hosts built
// with Microsoft's toolchain free into (see torvex/ucrt_heap.h).
#include "common/codec.h"

#include "common/win_resource.h"
#include "torvex/ucrt_heap.h"

namespace torvex {

void* AllocateRecord(size_t bytes) { return torvex_ucrt_malloc(bytes); }

void FreeRecord(void* record) { torvex_ucrt_free(record); }

void RecordFree::operator()(void* record) const { FreeRecord(record); }

}  // namespace torvex
