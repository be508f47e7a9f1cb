// Stand-in for the platform's <guiddef.h>: the GUID as Microsoft declares it
// (struct _GUID, which the decorated names spell).
#pragma once

typedef struct _GUID {
    unsigned long Data1;
    unsigned short Data2;
    unsigned short Data3;
    unsigned char Data4[8];
} GUID;
