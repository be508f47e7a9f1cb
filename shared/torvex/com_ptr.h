// COM interface pointer that releases its one reference when it goes out of
// scope: the library's, the simulation layer's and the benchmark's owner.
#pragma once

#include <cstddef>
#include <utility>

namespace torvex {

template <typename T>
class ComPtr {
public:
    ComPtr() noexcept = default;
    explicit ComPtr(T* p) noexcept : p_(p) {}  // takes ownership of one reference
    ~ComPtr() { reset(); }
    ComPtr(const ComPtr&) = delete;
    ComPtr& operator=(const ComPtr&) = delete;
    ComPtr(ComPtr&& other) noexcept : p_(std::exchange(other.p_, nullptr)) {}
    ComPtr& operator=(ComPtr&& other) noexcept {
        if (this != &other) reset(std::exchange(other.p_, nullptr));
        return *this;
    }

    T* get() const noexcept { return p_; }
    T* operator->() const noexcept { return p_; }
    explicit operator bool() const noexcept { return p_ != nullptr; }
    friend bool operator==(const ComPtr& p, std::nullptr_t) noexcept { return p.p_ == nullptr; }
    T** put() noexcept {
        reset();
        return &p_;
    }
    void** put_void() noexcept { return reinterpret_cast<void**>(put()); }
    T* release() noexcept { return std::exchange(p_, nullptr); }
    void reset(T* p = nullptr) noexcept {
        T* old = std::exchange(p_, p);
        if (old != nullptr) old->Release();
    }

private:
    T* p_ = nullptr;
};

}  // namespace torvex
