/* A stand-in for the Intel Graphics Control Library: answers from and records into the state the test shares through
 * a named mapping. Records are read at the library's published offsets, independently of Torvex's declarations. */
#include <windows.h>
#include <string.h>

#include "igcl_stand_in.h"

#define EXPORT __declspec(dllexport)
#define U32(record, offset) (*(uint32_t*)((char*)(record) + (offset)))
#define PTR(record, offset) (*(void**)((char*)(record) + (offset)))

static IgclStandInState g_fallback;
static IgclStandInState* g_state = &g_fallback;
static HANDLE g_mapping;
static void* const kApiHandle = (void*)0xA110;

BOOL WINAPI DllMain(HINSTANCE instance, DWORD reason, LPVOID reserved) {
    (void)instance, (void)reserved;
    if (reason == DLL_PROCESS_ATTACH) {
        g_mapping = OpenFileMappingW(FILE_MAP_ALL_ACCESS, FALSE, IGCL_STAND_IN_MAPPING);
        void* view = g_mapping != NULL ? MapViewOfFile(g_mapping, FILE_MAP_ALL_ACCESS, 0, 0, 0) : NULL;
        if (view != NULL) g_state = (IgclStandInState*)view;
        ++g_state->attaches;
    } else if (reason == DLL_PROCESS_DETACH) {
        ++g_state->detaches;
        if (g_state != &g_fallback) UnmapViewOfFile(g_state);
        if (g_mapping != NULL) CloseHandle(g_mapping);
    }
    return TRUE;
}

EXPORT uint32_t ctlInit(void* args, void** api) {
    ++g_state->initCalls, g_state->initSize = U32(args, 0), g_state->initAppVersion = U32(args, 8);
    *api = kApiHandle;
    return g_state->initResult;
}
EXPORT uint32_t ctlClose(void* api) {
    ++g_state->closeCalls, g_state->closedHandle = (uint64_t)(uintptr_t)api;
    return 0;
}

/* Device handles are 0x100 + d; display handles 0x1000 + 16 d + o. */
EXPORT uint32_t ctlEnumerateDevices(void* api, uint32_t* count, void** devices) {
    if (api != kApiHandle) return 0x4000000E;
    if (devices == NULL) *count = g_state->deviceCount;
    for (uint32_t d = 0; devices != NULL && d < *count && d < g_state->deviceCount; ++d)
        devices[d] = (void*)(uintptr_t)(0x100 + d);
    return 0;
}
EXPORT uint32_t ctlEnumerateDisplayOutputs(void* device, uint32_t* count, void** outputs) {
    if (outputs == NULL) *count = g_state->outputCount;
    for (uint32_t o = 0; outputs != NULL && o < *count && o < g_state->outputCount; ++o)
        outputs[o] = (void*)(uintptr_t)(0x1000 + 16 * ((uintptr_t)device - 0x100) + o);
    return 0;
}
EXPORT uint32_t ctlGetDisplayProperties(void* display, void* properties) {
    ++g_state->propertyCalls, g_state->propertySize = U32(properties, 0);
    U32(properties, 48) = g_state->outputFlags[((uintptr_t)display & 15) % 4];
    return 0;
}

/* Blocks: id 40 + b, type, samples per channel, one channel as configured. */
EXPORT uint32_t ctlPixelTransformationGetConfig(void* display, void* query) {
    char* blocks = (char*)PTR(query, 264);
    (void)display;
    g_state->getSize = U32(query, 0);
    if (blocks == NULL) U32(query, 256) = g_state->blockCount;
    for (uint32_t b = 0; blocks != NULL && b < U32(query, 256) && b < g_state->blockCount && b < 4; ++b) {
        U32(blocks + 144 * b, 8) = 40 + b, U32(blocks + 144 * b, 12) = g_state->blockTypes[b];
        U32(blocks + 144 * b, 20) = g_state->blockSamples[b], U32(blocks + 144 * b, 24) = 1;
    }
    return 0;
}
EXPORT uint32_t ctlPixelTransformationSetConfig(void* display, void* request) {
    int call = g_state->setCalls++ % 8; /* the last eight calls */
    char* blocks = (char*)PTR(request, 24);
    g_state->setDisplays[call] = (uint64_t)(uintptr_t)display, g_state->setSizes[call] = U32(request, 0);
    g_state->setOperations[call] = U32(request, 8), g_state->setBlockCounts[call] = U32(request, 16);
    g_state->setBlockIds[call] = blocks != NULL ? U32(blocks, 8) : 0;
    if (U32(request, 8) == 2 && blocks != NULL) {
        g_state->lutChannels = U32(blocks, 24), g_state->lutSamples = U32(blocks, 20);
        const double* values = (const double*)PTR(blocks, 32);
        uint32_t n = g_state->lutChannels * g_state->lutSamples;
        if (values != NULL && n <= 48) memcpy(g_state->lutValues, values, n * sizeof(double));
    }
    return g_state->setResult;
}
