// The Microsoft library's string and vector, read and written in its layout
// over ucrtbase.dll's heap (see msvc_layout.h).
#include "msvc/msvc_layout.h"

#include <windows.h>

#include <cstring>

#include "torvex/ucrt_heap.h"

namespace torvex::msvc {
namespace {

uintptr_t Address(const void* pointer) { return reinterpret_cast<uintptr_t>(pointer); }

template <typename C>
size_t BlockBytes(const String<C>* text) {
    return (text->capacity + 1) * sizeof(C);
}

size_t BlockBytes(const WideVector* list) { return Address(list->end) - Address(list->first); }

template <typename C>
void MakeEmpty(String<C>* text) {
    text->size = 0;
    text->capacity = String<C>::kSmallCapacity;
    text->buffer[0] = C{};
}

}  // namespace

// ---------------------------------------------------------------- memory

void* Allocate(size_t bytes) noexcept {
    if (bytes < kBigBlock) return torvex_ucrt_malloc(bytes);
    if (bytes > SIZE_MAX - kBigOverhead) return nullptr;
    const uintptr_t block = Address(torvex_ucrt_malloc(bytes + kBigOverhead));
    if (block == 0) return nullptr;
    const uintptr_t user = (block + kBigOverhead) & ~static_cast<uintptr_t>(kBigAlignment - 1);
    reinterpret_cast<uintptr_t*>(user)[-1] = block;
    return reinterpret_cast<void*>(user);
}

bool BlockIntact(const void* pointer, size_t bytes) noexcept {
    if (bytes < kBigBlock) return true;
    const uintptr_t user = Address(pointer);
    if (user % kBigAlignment != 0 || user < kMinBackShift) return false;
    // A back pointer above the user pointer wraps to a huge distance and is refused too.
    const uintptr_t shift = user - static_cast<const uintptr_t*>(pointer)[-1];
    return shift >= kMinBackShift && shift <= kBigOverhead;
}

void Deallocate(void* pointer, size_t bytes) noexcept {
    if (pointer == nullptr) return;
    void* block = bytes < kBigBlock ? pointer : reinterpret_cast<void*>(static_cast<uintptr_t*>(pointer)[-1]);
    torvex_ucrt_free(block);
}

// --------------------------------------------------------------- strings

template <typename C>
bool ValidLarge(const String<C>* text) noexcept {
    if (text == nullptr) return false;
    if (text->capacity < String<C>::kSmallCapacity || text->capacity > MaxStringSize<C>()) return false;
    if (text->size > text->capacity) return false;
    if (text->Large()) {
        const C* data = text->pointer;
        if (data == nullptr || Address(data) % alignof(C) != 0) return false;
        if (!BlockIntact(data, BlockBytes(text))) return false;
    }
    return text->Data()[text->size] == C{};
}

template <typename C>
C* ConstructForOverwrite(String<C>* out, size_t size) noexcept {
    MakeEmpty(out);
    if (size <= String<C>::kSmallCapacity) {
        out->buffer[size] = C{};
        out->size = size;
        return out->buffer;
    }
    if (size > MaxStringSize<C>()) return nullptr;
    const size_t capacity = StringCapacityFor<C>(size, String<C>::kSmallCapacity);
    C* block = static_cast<C*>(Allocate((capacity + 1) * sizeof(C)));
    if (block == nullptr) return nullptr;
    block[size] = C{};
    out->pointer = block;
    out->size = size;
    out->capacity = capacity;
    return block;
}

template <typename C>
bool ConstructLarge(String<C>* out, std::basic_string_view<C> text) noexcept {
    C* data = ConstructForOverwrite(out, text.size());
    if (data == nullptr) return false;
    if (!text.empty()) std::memcpy(data, text.data(), text.size() * sizeof(C));
    return true;
}

template <typename C>
void Truncate(String<C>* text, size_t size) noexcept {
    if (size >= text->size) return;
    text->size = size;
    text->Data()[size] = C{};
}

template <typename C>
bool Assign(String<C>* target, std::basic_string_view<C> text) noexcept {
    const size_t size = text.size();
    if (size <= target->capacity) {
        C* data = target->Data();
        if (size != 0) std::memmove(data, text.data(), size * sizeof(C));
        data[size] = C{};
        target->size = size;
        return true;
    }
    if (size > MaxStringSize<C>()) return false;
    const size_t capacity = StringCapacityFor<C>(size, target->capacity);
    C* block = static_cast<C*>(Allocate((capacity + 1) * sizeof(C)));
    if (block == nullptr) return false;
    std::memcpy(block, text.data(), size * sizeof(C));
    block[size] = C{};
    if (target->Large()) Deallocate(target->pointer, BlockBytes(target));
    target->pointer = block;
    target->size = size;
    target->capacity = capacity;
    return true;
}

template <typename C>
void Destroy(String<C>* text) noexcept {
    if (text->Large()) Deallocate(text->pointer, BlockBytes(text));
    MakeEmpty(text);
}

template <typename C>
bool TakeByValue(String<C>* argument, std::basic_string<C>& out) {
    if (!Valid(argument)) return false;
    try {
        out.assign(argument->Data(), argument->size);
    } catch (...) {
        Destroy(argument);
        throw;
    }
    Destroy(argument);
    return true;
}

template bool ValidLarge(const NarrowString*) noexcept;
template bool ValidLarge(const WideString*) noexcept;
template char* ConstructForOverwrite(NarrowString*, size_t) noexcept;
template wchar_t* ConstructForOverwrite(WideString*, size_t) noexcept;
template bool ConstructLarge(NarrowString*, std::string_view) noexcept;
template bool ConstructLarge(WideString*, std::wstring_view) noexcept;
template void Truncate(NarrowString*, size_t) noexcept;
template void Truncate(WideString*, size_t) noexcept;
template bool Assign(NarrowString*, std::string_view) noexcept;
template bool Assign(WideString*, std::wstring_view) noexcept;
template void Destroy(NarrowString*) noexcept;
template void Destroy(WideString*) noexcept;
template bool TakeByValue(NarrowString*, std::string&);
template bool TakeByValue(WideString*, std::wstring&);

// --------------------------------------------------------------- vectors

bool Valid(const WideVector* list) noexcept {
    if (list == nullptr) return false;
    if (list->first == nullptr) return list->last == nullptr && list->end == nullptr;
    const uintptr_t first = Address(list->first), last = Address(list->last), end = Address(list->end);
    // The library never holds a block without room for one element.
    if (first > last || last > end || first == end) return false;
    if ((last - first) % sizeof(WideString) != 0 || (end - first) % sizeof(WideString) != 0) return false;
    if (first % alignof(WideString) != 0 || !BlockIntact(list->first, BlockBytes(list))) return false;
    for (const WideString* item = list->first; item != list->last; ++item)
        if (!Valid(item)) return false;
    return true;
}

bool Construct(WideVector* out, const std::vector<std::wstring>& items) noexcept {
    *out = WideVector{nullptr, nullptr, nullptr};
    if (items.empty()) return true;
    if (items.size() > MaxVectorSize()) return false;
    auto* block = static_cast<WideString*>(Allocate(items.size() * sizeof(WideString)));
    if (block == nullptr) return false;
    for (size_t i = 0; i < items.size(); ++i) {
        if (!Construct(&block[i], std::wstring_view(items[i]))) {
            for (size_t j = 0; j < i; ++j) Destroy(&block[j]);
            Deallocate(block, items.size() * sizeof(WideString));
            return false;
        }
    }
    *out = WideVector{block, block + items.size(), block + items.size()};
    return true;
}

void Clear(WideVector* list) noexcept {
    for (WideString* item = list->first; item != list->last; ++item) Destroy(item);
    list->last = list->first;
}

bool Append(WideVector* list, std::wstring_view item) noexcept {
    if (list->last != list->end) {
        if (!Construct(list->last, item)) return false;  // an empty small string holds nothing
        ++list->last;
        return true;
    }
    const size_t size = static_cast<size_t>(list->last - list->first);
    const size_t capacity = static_cast<size_t>(list->end - list->first);
    if (size == MaxVectorSize()) return false;
    const size_t grown = VectorCapacityFor(size + 1, capacity);
    auto* block = static_cast<WideString*>(Allocate(grown * sizeof(WideString)));
    if (block == nullptr) return false;
    if (!Construct(&block[size], item)) {
        Deallocate(block, grown * sizeof(WideString));
        return false;
    }
    // The library's strings hold no pointer into themselves: moving one is copying its bytes.
    if (size != 0) std::memcpy(static_cast<void*>(block), list->first, size * sizeof(WideString));
    if (list->first != nullptr) Deallocate(list->first, capacity * sizeof(WideString));
    *list = WideVector{block, block + size + 1, block + grown};
    return true;
}

}  // namespace torvex::msvc
