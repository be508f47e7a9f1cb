/* A stand-in for the AMD Display Library (atiadlxx.dll) with the 21 entry points the library resolves. Of the
 * displays of adapters 3 and 7 only logical display 5 of adapter 7 is mapped to its own adapter; the colour calls
 * answer for that pair only, from the state the test sets (exported as g_state), and record what they got. */
#include <string.h>

#define EXPORT __declspec(dllexport)

typedef void*(__stdcall* Allocator)(int);

typedef struct AdlStandInState {
    int caps, valid, range[5]; /* answers; the range is current, default, min, max, step */
    int contextsOpen, createFlags; /* flags of the last create: enumerate * 10 + threading */
    int lastGetType, colorSets, lastSetType, lastSetValue, sourceSets, lastSource;
} AdlStandInState;

EXPORT AdlStandInState g_state;
static Allocator g_allocator;

EXPORT int ADL2_Main_ControlX2_Create(Allocator allocator, int enumerate, void** context, int threading) {
    g_allocator = allocator, g_state.createFlags = enumerate * 10 + threading;
    *context = &g_state;
    return ++g_state.contextsOpen, 0;
}
EXPORT int ADL2_Main_Control_Destroy(void* context) {
    if (context == &g_state) --g_state.contextsOpen;
    return 0;
}

/* Records come from the caller's allocator, as the real library's do. */
static int* Records(int count, int bytes) {
    int* records = (int*)g_allocator(count * bytes);
    memset(records, 0, (size_t)(count * bytes));
    return records;
}
EXPORT int ADL2_Adapter_AdapterInfoX2_Get(void* context, void** info) {
    int* records = Records(2, 1572);
    records[1] = 3;            /* adapter index of the first record */
    records[1572 / 4 + 1] = 7; /* and of the second */
    *info = records;
    return context == &g_state ? 0 : -1;
}
EXPORT int ADL2_Adapter_NumberOfAdapters_Get(void* context, int* count) {
    *count = 2;
    return context == &g_state ? 0 : -1;
}
/* Two displays per adapter: logical index, logical adapter index, display-info value (flag 2: mapped). */
EXPORT int ADL2_Display_DisplayInfo_Get(void* context, int adapter, int* count, void** displays, int force) {
    static const int kDisplays[2][2][3] = {{{1, 9, 2}, {2, 3, 1}}, {{4, 7, 5}, {5, 7, 3}}};
    int* records = Records(2, 552);
    for (int d = 0; d < 2; ++d) {
        records[d * 138] = kDisplays[adapter == 7][d][0];
        records[d * 138 + 2] = kDisplays[adapter == 7][d][1];
        records[d * 138 + 137] = kDisplays[adapter == 7][d][2];
    }
    *count = 2;
    *displays = records;
    return context == &g_state && force == 0 ? 0 : -1;
}

static int ForThePair(void* context, int adapter, int display) {
    return context == &g_state && adapter == 7 && display == 5;
}
EXPORT int ADL2_Display_ColorCaps_Get(void* context, int adapter, int display, int* caps, int* valid) {
    if (!ForThePair(context, adapter, display)) return -1;
    *caps = g_state.caps, *valid = g_state.valid;
    return 0;
}
EXPORT int ADL2_Display_Color_Get(void* context, int adapter, int display, int type, int* current, int* def,
                                  int* min, int* max, int* step) {
    int* out[5] = {current, def, min, max, step};
    if (!ForThePair(context, adapter, display)) return -1;
    g_state.lastGetType = type;
    for (int i = 0; i < 5; ++i) *out[i] = g_state.range[i];
    return 0;
}
EXPORT int ADL2_Display_Color_Set(void* context, int adapter, int display, int type, int value) {
    if (!ForThePair(context, adapter, display)) return -1;
    ++g_state.colorSets, g_state.lastSetType = type, g_state.lastSetValue = value;
    return 0;
}
EXPORT int ADL2_Display_ColorTemperatureSource_Set(void* context, int adapter, int display, int source) {
    if (!ForThePair(context, adapter, display)) return -1;
    ++g_state.sourceSets, g_state.lastSource = source;
    return 0;
}

/* Resolved but never called. */
#define NEVER_CALLED(name) EXPORT int name(void) { return -1; }
NEVER_CALLED(ADL2_Main_Control_Create) NEVER_CALLED(ADL2_Display_Modes_Get) NEVER_CALLED(ADL2_Adapter_Active_Get)
NEVER_CALLED(ADL_Adapter_NumberOfAdapters_Get) NEVER_CALLED(ADL_Adapter_AdapterInfo_Get)
NEVER_CALLED(ADL_Display_DisplayInfo_Get) NEVER_CALLED(ADL_Display_ColorCaps_Get) NEVER_CALLED(ADL_Display_Color_Get)
NEVER_CALLED(ADL_Display_Sharpness_Info_Get) NEVER_CALLED(ADL_Display_Sharpness_Get)
NEVER_CALLED(ADL_Display_Sharpness_Set) NEVER_CALLED(ADL_Display_Sharpness_Caps)
