/*
 * A stand-in for the AMD Display Library (atiadlxx.dll): the 21 entry points
 * the library resolves, answering from a state the test sets and recording
 * the calls it cares about.
 */
#include <stdlib.h>
#include <string.h>

#define EXPORT __declspec(dllexport)

typedef void* (__stdcall* Allocator)(int);

typedef struct AdlStandInState {
    int caps;
    int valid;
    int range[5]; /* current, default, min, max, step */
    int colorSets;
    int lastSetType;
    int lastSetValue;
    int sourceSets;
    int lastSource;
    int contextsOpen;
} AdlStandInState;

static AdlStandInState g_state = {0x11, 0xFFFF, {6500, 6500, 5000, 9000, 100}, 0, 0, 0, 0, 0, 0};
static Allocator g_allocator;

EXPORT AdlStandInState* AdlStandIn(void) { return &g_state; }

EXPORT int ADL2_Main_ControlX2_Create(Allocator allocator, int enumerate, void** context, int threading) {
    (void)enumerate;
    (void)threading;
    g_allocator = allocator;
    *context = &g_state;
    ++g_state.contextsOpen;
    return 0;
}
EXPORT int ADL2_Main_Control_Destroy(void* context) {
    (void)context;
    --g_state.contextsOpen;
    return 0;
}
EXPORT int ADL2_Adapter_AdapterInfoX2_Get(void* context, void** info) {
    (void)context;
    int* records = (int*)g_allocator(2 * 1572);
    memset(records, 0, 2 * 1572);
    records[1] = 3;                /* adapter index of the first record */
    records[1572 / 4 + 1] = 7;     /* and of the second */
    *info = records;
    return 0;
}
EXPORT int ADL2_Adapter_NumberOfAdapters_Get(void* context, int* count) {
    (void)context;
    *count = 2;
    return 0;
}
EXPORT int ADL2_Display_DisplayInfo_Get(void* context, int adapter, int* count, void** displays, int force) {
    (void)context;
    (void)force;
    int* records = (int*)g_allocator(2 * 552);
    memset(records, 0, 2 * 552);
    /* Adapter 3 has an unmapped display; adapter 7 a mapped one on logical index 5. */
    records[0] = adapter == 7 ? 4 : 1;
    records[2] = adapter;
    records[552 / 4 - 1] = 1;
    records[552 / 4 + 0] = 5;
    records[552 / 4 + 2] = adapter;
    records[2 * 552 / 4 - 1] = adapter == 7 ? 3 : 0;
    *count = 2;
    *displays = records;
    return 0;
}
EXPORT int ADL2_Display_ColorCaps_Get(void* context, int adapter, int display, int* caps, int* valid) {
    (void)context;
    if (adapter != 7 || display != 5) return -1;
    *caps = g_state.caps;
    *valid = g_state.valid;
    return 0;
}
EXPORT int ADL2_Display_Color_Get(void* context, int adapter, int display, int type, int* current, int* def,
                                  int* min, int* max, int* step) {
    (void)context;
    (void)type;
    if (adapter != 7 || display != 5) return -1;
    *current = g_state.range[0];
    *def = g_state.range[1];
    *min = g_state.range[2];
    *max = g_state.range[3];
    *step = g_state.range[4];
    return 0;
}
EXPORT int ADL2_Display_Color_Set(void* context, int adapter, int display, int type, int value) {
    (void)context;
    if (adapter != 7 || display != 5) return -1;
    ++g_state.colorSets;
    g_state.lastSetType = type;
    g_state.lastSetValue = value;
    return 0;
}
EXPORT int ADL2_Display_ColorTemperatureSource_Set(void* context, int adapter, int display, int source) {
    (void)context;
    (void)adapter;
    (void)display;
    ++g_state.sourceSets;
    g_state.lastSource = source;
    return 0;
}

/* Resolved but never called. */
EXPORT int ADL2_Main_Control_Create(void) { return -1; }
EXPORT int ADL2_Display_Modes_Get(void) { return -1; }
EXPORT int ADL2_Adapter_Active_Get(void) { return -1; }
EXPORT int ADL_Adapter_NumberOfAdapters_Get(void) { return -1; }
EXPORT int ADL_Adapter_AdapterInfo_Get(void) { return -1; }
EXPORT int ADL_Display_DisplayInfo_Get(void) { return -1; }
EXPORT int ADL_Display_ColorCaps_Get(void) { return -1; }
EXPORT int ADL_Display_Color_Get(void) { return -1; }
EXPORT int ADL_Display_Sharpness_Info_Get(void) { return -1; }
EXPORT int ADL_Display_Sharpness_Get(void) { return -1; }
EXPORT int ADL_Display_Sharpness_Set(void) { return -1; }
EXPORT int ADL_Display_Sharpness_Caps(void) { return -1; }
