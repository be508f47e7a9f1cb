// The graphics driver's COM server as Torvex.dll uses it on Intel machines,
// and as the simulation layer and the tests stand in for it: its class, its
// interface, and the three entries of that interface the library calls, the
// 4th (name to display identifier), the 27th (gamma ramp) and the 44th
// (generic get). The others answer E_NOTIMPL here and are never called.
#pragma once

#include <windows.h>
#include <oleauto.h>

#include <cstdint>

namespace torvex {

constexpr CLSID kGfxServerClass = {0x7160A13D, 0x73DA, 0x4CEA, {0x95, 0xB9, 0x37, 0x35, 0x64, 0x78, 0x58, 0x8A}};
constexpr IID kGfxServerInterface = {0xF932C038, 0x6484, 0x45CA, {0x8F, 0xA1, 0x7C, 0x8C, 0x27, 0x9F, 0x7A, 0xEE}};

struct IGfxServer : IUnknown {
    virtual HRESULT STDMETHODCALLTYPE DisplayIdFromName(BSTR name, uint32_t reserved, uint32_t* id,
                                                        uint32_t* status) = 0;  // 4
#define TORVEX_UNUSED_ENTRY(n) \
    virtual HRESULT STDMETHODCALLTYPE Unused##n() { return E_NOTIMPL; }
    TORVEX_UNUSED_ENTRY(5) TORVEX_UNUSED_ENTRY(6) TORVEX_UNUSED_ENTRY(7) TORVEX_UNUSED_ENTRY(8)
    TORVEX_UNUSED_ENTRY(9) TORVEX_UNUSED_ENTRY(10) TORVEX_UNUSED_ENTRY(11) TORVEX_UNUSED_ENTRY(12)
    TORVEX_UNUSED_ENTRY(13) TORVEX_UNUSED_ENTRY(14) TORVEX_UNUSED_ENTRY(15) TORVEX_UNUSED_ENTRY(16)
    TORVEX_UNUSED_ENTRY(17) TORVEX_UNUSED_ENTRY(18) TORVEX_UNUSED_ENTRY(19) TORVEX_UNUSED_ENTRY(20)
    TORVEX_UNUSED_ENTRY(21) TORVEX_UNUSED_ENTRY(22) TORVEX_UNUSED_ENTRY(23) TORVEX_UNUSED_ENTRY(24)
    TORVEX_UNUSED_ENTRY(25) TORVEX_UNUSED_ENTRY(26)
    virtual HRESULT STDMETHODCALLTYPE SetGammaRamp(uint32_t id, uint32_t size, void* ramp,
                                                   uint32_t* status) = 0;  // 27
    TORVEX_UNUSED_ENTRY(28) TORVEX_UNUSED_ENTRY(29) TORVEX_UNUSED_ENTRY(30) TORVEX_UNUSED_ENTRY(31)
    TORVEX_UNUSED_ENTRY(32) TORVEX_UNUSED_ENTRY(33) TORVEX_UNUSED_ENTRY(34) TORVEX_UNUSED_ENTRY(35)
    TORVEX_UNUSED_ENTRY(36) TORVEX_UNUSED_ENTRY(37) TORVEX_UNUSED_ENTRY(38) TORVEX_UNUSED_ENTRY(39)
    TORVEX_UNUSED_ENTRY(40) TORVEX_UNUSED_ENTRY(41) TORVEX_UNUSED_ENTRY(42) TORVEX_UNUSED_ENTRY(43)
#undef TORVEX_UNUSED_ENTRY
    virtual HRESULT STDMETHODCALLTYPE GetGeneric(const GUID& request, uint32_t size, void* data,
                                                 uint32_t* status) = 0;  // 44
};

}  // namespace torvex
