/* Shared between the Intel Graphics Control Library stand-in and its test: the state lives in a named file mapping
 * so that it outlives the library, which Torvex loads and frees on every operation. */
#ifndef TORVEX_IGCL_STAND_IN_H
#define TORVEX_IGCL_STAND_IN_H

#include <stdint.h>

#define IGCL_STAND_IN_MAPPING L"TorvexIgclStandIn"

typedef struct IgclStandInState {
    /* what the library answers: per device its outputs' configuration flags, then per display its blocks */
    uint32_t initResult, deviceCount, outputCount, outputFlags[4];
    uint32_t blockCount, blockTypes[4], blockSamples[4], setResult;
    /* what it saw */
    int attaches, detaches, initCalls, closeCalls, propertyCalls, setCalls;
    uint32_t initSize, initAppVersion, propertySize, getSize;
    uint64_t closedHandle;
    /* per set call: display, record size, operation, block count, id of the first block */
    uint64_t setDisplays[8];
    uint32_t setSizes[8], setOperations[8], setBlockCounts[8], setBlockIds[8];
    uint32_t lutChannels, lutSamples; /* of the last custom set, with its samples */
    double lutValues[48];
} IgclStandInState;

#endif
