/*
 * Shared between the Intel Graphics Control Library stand-in and its test:
 * the state lives in a named file mapping so that it outlives the library,
 * which Torvex loads and frees on every operation.
 */
#ifndef TORVEX_IGCL_STAND_IN_H
#define TORVEX_IGCL_STAND_IN_H

#include <stdint.h>

#define IGCL_STAND_IN_MAPPING L"TorvexIgclStandIn"
#define IGCL_MAX_OUTPUTS 4
#define IGCL_MAX_BLOCKS 4
#define IGCL_MAX_SAMPLES 16

typedef struct IgclStandInState {
    /* what the library answers */
    uint32_t initResult;
    uint32_t deviceCount;
    uint32_t outputCount;                        /* per device */
    uint32_t outputFlags[IGCL_MAX_OUTPUTS];      /* display configuration flags */
    uint32_t blockCount;
    uint32_t blockTypes[IGCL_MAX_BLOCKS];
    uint32_t blockSamples[IGCL_MAX_BLOCKS];
    uint32_t setResult;

    /* what it saw */
    int attaches, detaches;
    int initCalls, closeCalls;
    uint32_t initSize, initAppVersion;
    uint64_t closedHandle;
    int propertyCalls, getCalls;
    uint32_t propertySize, getSize;
    int setCalls;
    uint64_t setDisplays[8];
    uint32_t setOperations[8];
    uint32_t setSizes[8];
    uint32_t setBlockCounts[8];
    uint32_t setBlockIds[8];   /* block id of the first block handed over */
    uint32_t lutChannels, lutSamples;
    double lutValues[3 * IGCL_MAX_SAMPLES];
} IgclStandInState;

#endif
