/*
 * The Microsoft-ABI host's GCC-built twin (msvc_twin.dll). The simulation
 * layer and the GCC-ABI members are GCC code, so the host (built with clang
 * in Microsoft mode) asks the twin to put a machine profile beneath
 * Torvex.dll, to run the GCC-ABI member of a case for comparison, and to
 * watch what Torvex.dll frees on ucrtbase.dll's heap and says on the debugger
 * channel. Plain C, compiled by both compilers.
 */
#ifndef TORVEX_MSVC_TWIN_H
#define TORVEX_MSVC_TWIN_H

#include <stddef.h>
#include <stdint.h>

#include "torvex.h"

#ifdef TWIN_BUILDING_DLL
#define TWIN_API __declspec(dllexport)
#else
#define TWIN_API __declspec(dllimport)
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* One case per member; both sides serve the same list. */
typedef enum TwinMember {
    TWIN_STRING_TO_WSTRING,
    TWIN_WSTRING_TO_STRING,
    TWIN_STRING_TO_WSTRING_UTF8,
    TWIN_WSTRING_TO_STRING_UTF8,
    TWIN_STRING_TRIM,
    TWIN_WSTRING_TRIM,
    TWIN_REPLACE_PLACEHOLDER,
    TWIN_TO_LOWER,
    TWIN_COMPARE_NO_CASE,
    TWIN_READ_DW,
    TWIN_READ_RZ, /* wide[2]: what the host's value holds before the call */
    TWIN_READ_EXPAND_RZ,
    TWIN_WRITE_DW,
    TWIN_WRITE_RZ,
    TWIN_WRITE_EXPAND_RZ,
    TWIN_HARDWARE_IDS,
    TWIN_DESCRIPTIONS,
    TWIN_STR_BY_HARDWARE_ID,
    TWIN_ULONG_BY_HARDWARE_ID,
    TWIN_STR_BY_DESC,
    TWIN_ULONG_BY_DESC,
    TWIN_UNINSTALL,
    TWIN_UNINSTALL_EX,
    TWIN_UNKNOWN_DEVICES,
    TWIN_HARDWARE_ID_LIST,
    TWIN_LAST_INSTALL_TIME,
    TWIN_ALL_HARDWARE_IDS, /* wide[1], wide[2]: what the host's list holds before the call */
    TWIN_SOFT_COMPONENTS,  /* wide[0]: the parent text; wide[1], wide[2]: the list before */
    TWIN_INTERNAL_DEVICES,
    TWIN_DRIVER_STACK,
    /* HalWmi made on wide[0] (the namespace); wide[1] the query or class, wide[2] the property */
    TWIN_WMI_SELECT, /* number: the buffer's size; the buffer comes back as one text */
    TWIN_WMI_SELECT_STR,
    TWIN_WMI_SELECT_STR_A,
    TWIN_WMI_SELECT_STR_B,
    TWIN_WMI_SELECT_UINT,
    TWIN_WMI_SELECT_UINT_ARRAY,
    TWIN_WMI_CACHE_SUM,
    TWIN_WMI_SELECT_BOOL,
    TWIN_WMI_COPIES,  /* SelectStr on a copy, on an object assigned from it, and Init on each */
    TWIN_WMI_METHODS, /* every firmware-channel member; number: GetOutPutUInt's command, narrow[0] the text one */
    TWIN_HAL_QUERIES, /* number: a device class; every code 0..29 through the flat API */
    TWIN_MEMBER_COUNT
} TwinMember;

/* Zero-terminated texts; a null entry is an argument the member does not take. */
typedef struct TwinArgs {
    const wchar_t* wide[3];
    const char* narrow[2];
    HalGuid guid;     /* laid out as the platform's GUID */
    uint32_t number;  /* an EnumDeviceProperty, a DWORD to write or a device class */
} TwinArgs;

enum { TWIN_MAX_ITEMS = 512, TWIN_TEXT_UNITS = 1 << 16 };

/* What a member gave, in one shape for both sides. */
typedef struct TwinAnswer {
    uint64_t number; /* the scalar result */
    uint64_t out;    /* a scalar out-argument */
    uint32_t count;  /* texts: one for a string result, the elements of a list */
    uint32_t used;   /* units of `text` in use */
    uint32_t length[TWIN_MAX_ITEMS];
    wchar_t text[TWIN_TEXT_UNITS]; /* the texts one after another; narrow text widened byte by byte */
} TwinAnswer;

/* Puts tests/machines/<name>.json beneath Torvex.dll afresh (null: none). 0 when it cannot. */
TWIN_API int TwinInstallMachine(const char* name);

/* Runs the GCC-ABI member of a case. 0 for a member it does not know. */
TWIN_API int TwinRun(TwinMember member, const TwinArgs* args, TwinAnswer* answer);

/* From now on, counts what Torvex.dll frees on ucrtbase.dll's heap and keeps
 * its debug messages. Call before the first Microsoft-ABI member. */
TWIN_API int TwinWatch(void);
/* Forgets what was freed and said so far. */
TWIN_API void TwinForget(void);
/* How often, since TwinForget, Torvex.dll freed this block (the address
 * malloc returned) without having allocated it itself: a block of the host's.
 * For null, how many such frees there were in all. */
TWIN_API uint32_t TwinFreed(const void* block);
/* 1 when Torvex.dll allocated the block through ucrtbase.dll's malloc and has
 * not freed it; the block is the host's from then on and no longer watched. */
TWIN_API int TwinHandedOut(const void* block);
/* Debug messages since TwinForget; the last one is copied into `last`. */
TWIN_API uint32_t TwinMessages(wchar_t* last, uint32_t units);

#ifdef __cplusplus
}
#endif

#endif /* TORVEX_MSVC_TWIN_H */
