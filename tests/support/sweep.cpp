#include "support/sweep.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <vector>

#include "support/record.h"
#include "torvex.h"

namespace torvex::test {
namespace {

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
// capacity (8 bytes) and clock (4 bytes), and the audio codec count (8 bytes
// once 4 are given). Hosts must give them full width.
bool WritesFullWidth(uint32_t type, uint32_t code, uint32_t size) {
    return (type == HAL_CLASS_MEMORY &&
            ((code == HAL_MM_CAPACITY_MIB && size < 8) || (code == HAL_MM_CLOCK_MHZ && size < 4))) ||
           (type == HAL_CLASS_AUDIO && code == HAL_AUDIO_CODEC_COUNT && size < 8);
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

void CloseRecord(uint32_t type, void* record) {
    if (record == nullptr) return;
    if (type == HAL_CLASS_WIFI || type == HAL_CLASS_AUDIO) HalCloseDevice(type, record);
    torvex::test::FreeRecord(record);
}

}  // namespace

void SweepQueries() {
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
        CloseRecord(type, record);
    }
}


void SweepOtherExports() {
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
            if (type != HAL_CLASS_WIFI) {
                EXPECT_EQ(HalCloseDevice(type, device), type == HAL_CLASS_AUDIO ? 1u : 0u);
            }
        }
    }
}


void SweepSets() {
    GuardedBuffer junk(64);
    std::memset(junk.data(), 0, 64);
    for (uint32_t type : Classes()) {
        void* record = nullptr;
        if (HalInit(type, &record) == 0) record = nullptr;
        void* devices[] = {nullptr, FirstEntry(type, record), junk.data()};
        for (void* device : devices) {
            for (uint32_t code : Codes()) {
                for (uint32_t size : kSizes) {
                    for (int pattern = 0; pattern < 4; ++pattern) {
                        // A zeroed input of at least 20 bytes: some sets read a
                        // whole request whatever size they are told.
                        GuardedBuffer input(size < 20 ? 20 : size);
                        std::memset(input.data(), 0, size < 20 ? 20 : size);
                        GuardedBuffer returned(4);
                        HalSetInformation(type, device, code, (pattern & 1) != 0 ? input.data() : nullptr, size,
                                          (pattern & 2) != 0 ? reinterpret_cast<uint32_t*>(returned.data()) : nullptr,
                                          pattern);
                    }
                }
            }
        }
        CloseRecord(type, record);
    }
}

}  // namespace torvex::test
