/*
 * A minimal C host of Torvex.dll: prints the CPU name, the physical disks and
 * the battery state, and frees every record it is given. Built as C against
 * torvex.h and the import library.
 */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <windows.h>

#include "torvex.h"

/* Records come from the heap of ucrtbase.dll, the C runtime of programs built
 * with Microsoft's toolchain, whose free() releases them. This example is
 * built with mingw-w64 against msvcrt.dll, another heap, so it calls
 * ucrtbase.dll's free by name (the DLL has loaded ucrtbase.dll). */
static void free_record(void* record)
{
    typedef void(__cdecl * free_fn)(void*);
    static free_fn ucrt_free;

    if (ucrt_free == NULL)
        ucrt_free = (free_fn)(void*)GetProcAddress(GetModuleHandleW(L"ucrtbase.dll"), "free");
    if (ucrt_free != NULL)
        ucrt_free(record);
}

static void print_cpu(void)
{
    char name[256];
    uint32_t written = 0;

    HalInit(HAL_CLASS_CPU, NULL); /* vendor detection; needs no record */
    memset(name, 0, sizeof name); /* text comes without a terminator */
    if (HalQueryInformation(HAL_CLASS_CPU, NULL, HAL_CPU_NAME, name, sizeof name - 1, &written))
        printf("cpu: %.*s\n", (int)written, name);
    else
        printf("cpu: not available\n");
}

static void print_disks(void)
{
    void* out = NULL;
    HalDiskList* list;
    uint32_t i;

    if (!HalInit(HAL_CLASS_DISK, &out)) {
        printf("disks: not available\n");
        return;
    }
    list = (HalDiskList*)out;
    printf("disks: %u\n", list->count);
    for (i = 0; i < list->count; ++i) {
        HalDiskRecord* disk = &list->records[i];
        wchar_t caption[128];
        uint64_t capacity = 0;
        uint32_t written = 0;

        if (HalQueryInformation(HAL_CLASS_DISK, disk, HAL_DISK_CAPTION, caption, sizeof caption, &written))
            printf("  disk %u: %.*ls\n", disk->driveNumber, (int)(written / sizeof(wchar_t)), caption);
        if (HalOpenDevice(HAL_CLASS_DISK, disk)) {
            if (HalQueryInformation(HAL_CLASS_DISK, disk, HAL_DISK_CAPACITY_MIB, &capacity, sizeof capacity,
                                    &written))
                printf("  disk %u: %llu MiB\n", disk->driveNumber, (unsigned long long)capacity);
        }
        HalCloseDevice(HAL_CLASS_DISK, disk); /* closes the handle, also the invalid one of a failed open */
    }
    free_record(list);
}

static void print_battery(void)
{
    uint32_t value = 0;
    uint32_t written = 0;

    HalInit(HAL_CLASS_BATTERY, NULL);
    if (HalQueryInformation(HAL_CLASS_BATTERY, NULL, HAL_BT_PRESENT, &value, sizeof value, &written))
        printf("battery: present\n");
    else
        printf("battery: none\n");
    if (HalQueryInformation(HAL_CLASS_BATTERY, NULL, HAL_BT_AC_LINE_STATUS, &value, sizeof value, &written))
        printf("ac line: %s\n", value == 1 ? "online" : value == 0 ? "offline" : "unknown");
}

int main(void)
{
    print_cpu();
    print_disks();
    print_battery();
    return 0;
}
