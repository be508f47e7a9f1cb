// The heap of ucrtbase.dll, the C runtime of programs built with Microsoft's
// toolchain. Every record the library hands a host comes from it, so that such
// a host releases it with its own free; the library's own memory stays on the
// heap of msvcrt.dll, the runtime of this toolchain, which is a different heap.
// The two functions are imported from ucrtbase.dll by their names there under
// names of our own (shared/ucrt_heap.def), so that they never mix with
// msvcrt.dll's malloc and free.
#pragma once

#include <cstddef>

extern "C" {
__declspec(dllimport) void* __cdecl torvex_ucrt_malloc(size_t bytes);
__declspec(dllimport) void __cdecl torvex_ucrt_free(void* block);
// How many bytes a block holds (what a test reads of a record).
__declspec(dllimport) size_t __cdecl torvex_ucrt_msize(void* block);
}
