// The robustness sweep over every export: every class, code, buffer size and
// null pattern, each buffer ending at an inaccessible page so that a write
// past the size the caller gave faults, and a refusal must leave the outputs
// alone. Runs on whatever machine the caller has set up (Wine's own or a fake).
#pragma once

#include <windows.h>

#include <cstdint>
#include <cstring>

namespace torvex::test {

constexpr uint8_t kPattern = 0xEE;

// size bytes that end where a PAGE_NOACCESS page begins.
class GuardedBuffer {
public:
    explicit GuardedBuffer(size_t size) : size_(size) {
        SYSTEM_INFO info;
        GetSystemInfo(&info);
        page_ = info.dwPageSize;
        const size_t pages = (size + page_ - 1) / page_ + 1;
        base_ = static_cast<uint8_t*>(VirtualAlloc(nullptr, (pages + 1) * page_, MEM_RESERVE | MEM_COMMIT, PAGE_READWRITE));
        DWORD old = 0;
        VirtualProtect(base_ + pages * page_, page_, PAGE_NOACCESS, &old);
        data_ = base_ + pages * page_ - size;
        Reset();
    }
    ~GuardedBuffer() { VirtualFree(base_, 0, MEM_RELEASE); }
    GuardedBuffer(const GuardedBuffer&) = delete;
    GuardedBuffer& operator=(const GuardedBuffer&) = delete;

    uint8_t* data() { return data_; }
    void Reset() { std::memset(data_, kPattern, size_); }
    bool Untouched() const {
        for (size_t i = 0; i < size_; ++i)
            if (data_[i] != kPattern) return false;
        return true;
    }
    bool ZeroFilled() const {
        for (size_t i = 0; i < size_; ++i)
            if (data_[i] != 0) return false;
        return true;
    }

private:
    size_t size_;
    size_t page_ = 4096;
    uint8_t* base_ = nullptr;
    uint8_t* data_ = nullptr;
};

// HalQueryInformation over everything; records from HalInit are freed.
void SweepQueries();
// HalRead, HalOpenDevice, HalControl, HalSetCallback and HalCloseDevice with bad arguments.
void SweepOtherExports();
// HalSetInformation over everything, inputs of the stated size and more.
void SweepSets();

}  // namespace torvex::test
