// Every query export against every class, code, buffer size and null pattern
// on Wine's own machine. Each buffer ends at an inaccessible page, so a write
// past the size the caller gave faults; a refusal must leave the outputs alone.
#include <windows.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <vector>

#include "support/torvex_test.h"

namespace {

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

const uint32_t kSizes[] = {0, 1, 3, 4, 7, 8, 19, 20, 35, 36, 1024};

std::vector<uint32_t> Classes() {
    std::vector<uint32_t> classes;
    for (uint32_t c = 0; c <= 21; ++c) classes.push_back(c);
    classes.push_back(0xFFFFFFFFu);
    return classes;
}

std::vector<uint32_t> Codes() {
    std::vector<uint32_t> codes;
    for (uint32_t c = 0; c <= 40; ++c) codes.push_back(c);
    codes.push_back(0xFFFFFFFFu);
    return codes;
}

// Codes whose output is written whatever the size says: the memory module's
// capacity (8 bytes) and clock (4 bytes). Hosts must give them full width.
bool WritesFullWidth(uint32_t type, uint32_t code, uint32_t size) {
    return type == HAL_CLASS_MEMORY && ((code == HAL_MM_CAPACITY_MIB && size < 8) || (code == HAL_MM_CLOCK_MHZ && size < 4));
}

// A first entry of what HalInit handed out, as the class's calls expect it.
void* FirstEntry(uint32_t type, void* record) {
    if (record == nullptr) return nullptr;
    const auto* header = static_cast<HalListHeader*>(record);
    switch (type) {
    case HAL_CLASS_DISK:
    case HAL_CLASS_AUDIO:
    case HAL_CLASS_MEMORY:
    case HAL_CLASS_DRIVER:
        return header->count != 0 ? static_cast<uint8_t*>(record) + 8 : nullptr;
    default:
        return record;
    }
}

TEST(RobustnessSweep, QueriesNeverWritePastTheBufferAndRefusalsTouchNothing) {
    GuardedBuffer junk(64);
    std::memset(junk.data(), 0, 64);
    for (uint32_t type : Classes()) {
        GuardedBuffer out(sizeof(void*));
        std::memset(out.data(), 0, sizeof(void*));  // a class may succeed without handing out a record
        void* record = nullptr;
        if (HalInit(type, reinterpret_cast<void**>(out.data())) != 0)
            std::memcpy(&record, out.data(), sizeof(record));
        HalInit(type, nullptr);
        void* devices[] = {nullptr, FirstEntry(type, record), junk.data()};
        for (void* device : devices) {
            for (uint32_t code : Codes()) {
                for (uint32_t size : kSizes) {
                    if (WritesFullWidth(type, code, size)) continue;
                    for (int pattern = 0; pattern < 4; ++pattern) {
                        GuardedBuffer buffer(size);
                        GuardedBuffer returned(4);
                        uint8_t* bufferArg = (pattern & 1) != 0 ? buffer.data() : nullptr;
                        auto* returnedArg = (pattern & 2) != 0 ? reinterpret_cast<uint32_t*>(returned.data()) : nullptr;
                        const uint32_t result = HalQueryInformation(type, device, code, bufferArg, size, returnedArg);
                        if (result != 0) continue;
                        const bool zeroFillAllowed = type == HAL_CLASS_MEMORY && code == HAL_MM_COUNT && size < 4;
                        EXPECT_TRUE(buffer.Untouched() || (zeroFillAllowed && buffer.ZeroFilled()))
                            << "class " << type << " code " << code << " size " << size;
                        EXPECT_TRUE(returned.Untouched()) << "class " << type << " code " << code << " size " << size;
                    }
                }
            }
        }
        if (record != nullptr) {
            if (type == HAL_CLASS_WIFI) HalCloseDevice(type, record);
            if (type == HAL_CLASS_AUDIO) HalCloseDevice(type, record);
            std::free(record);
        }
    }
}

TEST(RobustnessSweep, OtherExportsRefuseBadArgumentsWithoutFaulting) {
    GuardedBuffer junk(64);
    std::memset(junk.data(), 0, 64);
    for (uint32_t type : Classes()) {
        for (void* device : {static_cast<void*>(nullptr), static_cast<void*>(junk.data())}) {
            for (uint32_t size : kSizes) {
                GuardedBuffer buffer(size);
                GuardedBuffer offset(8);
                std::memset(offset.data(), 0, 8);
                uint32_t count = 0;
                HalRead(type, device, reinterpret_cast<uint32_t*>(offset.data()), buffer.data(), size, &count);
                HalRead(type, device, nullptr, buffer.data(), size, &count);
                HalOpenDevice(type == HAL_CLASS_DISK ? 0xFFFFu : type, device);
                HalControl(type, device, 0, buffer.data(), size, buffer.data(), size, &count);
                HalControl(type, device, 1, nullptr, size, nullptr, size, nullptr);
                HalSetCallback(type, 2, device);
            }
            if (type != HAL_CLASS_WIFI) EXPECT_EQ(HalCloseDevice(type, device), type == HAL_CLASS_AUDIO ? 1u : 0u);
        }
    }
}

}  // namespace
