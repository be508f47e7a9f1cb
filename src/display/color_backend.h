// Display colour (class 19) works through one of three vendor back ends, each
// in a file of its own behind this interface:
//
//   adl_backend.cpp         the AMD Display Library (atiadlxx.dll)
//   gfx_server_backend.cpp  the graphics driver's COM server (Intel machines)
//   igcl_backend.cpp        the Intel Graphics Control Library (ControlLib.dll)
//
// display_color.cpp holds the class-19 entry points: it picks the back end at
// HalInit(19) from the adapter names and hands each query and set to the
// first back end that was chosen, in the order server, AMD library, Intel
// library. A back end once chosen stays chosen for the process.
#pragma once

#include <cstdint>

namespace torvex::display {

class ColorBackend {
public:
    // True once this back end was chosen; the AMD library also needs the
    // host's display pair as the context.
    virtual bool Chosen(const void* context) const = 0;
    // False when a chosen back end has lost what it works with (an entry
    // point, the server object); then no back end answers.
    virtual bool Intact() const { return true; }
    virtual uint32_t Query(void* context, uint32_t code, void* buffer, uint32_t size, uint32_t* returned) = 0;
    virtual uint32_t Set(void* context, uint32_t code, void* input, uint32_t inputSize, uint32_t* arg5,
                         uint32_t arg6) = 0;

protected:
    ~ColorBackend() = default;
};

// Each back end's one instance.
ColorBackend& AdlBackend();
ColorBackend& GfxServerBackend();
ColorBackend& IgclBackend();

// Bringing a back end up at HalInit(19).
// The AMD library and its first mapped display: the context in *out.
uint32_t InitAdl(void** out);
// The driver's server: true when it was created (only when COM was already
// initialised on this thread, or in the other model).
bool InitGfxServer();
// The Intel library: 1 when ctlInit succeeded, now or before.
uint32_t InitIgcl();

// True when the AMD library is loaded; the server's ramps then round as the
// AMD drivers do, and the warmth ramp leaves the screen to the library.
bool AdlLoaded();
// False when any chosen back end is not intact.
bool IsDisplayBackendReady();

}  // namespace torvex::display
