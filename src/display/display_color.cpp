// Display colour and brightness (class 19): the entry points the Hal API
// reaches. The back end is chosen at HalInit(19) from the adapter names; each
// back end lives in a file of its own (see color_backend.h).
#include <cwchar>
#include <initializer_list>

#include "common/win_resource.h"
#include "display/color_backend.h"
#include "display/display_color.h"
#include "torvex.h"

namespace torvex::display {
namespace {

// The back end that answers for this context: the first chosen one in the
// order server, AMD library, Intel library; null when none may answer.
ColorBackend* Answering(void* context) {
    if (!IsDisplayBackendReady()) return nullptr;
    for (ColorBackend* backend : {&GfxServerBackend(), &AdlBackend(), &IgclBackend()})
        if (backend->Chosen(context)) return backend;
    return nullptr;
}

}  // namespace

bool IsDisplayBackendReady() { return AdlBackend().Intact() && GfxServerBackend().Intact() && IgclBackend().Intact(); }

}  // namespace torvex::display

using namespace torvex::display;

uint32_t DisplayColorInit(void** out) {
    void* rawList = nullptr;
    if (GpInit(&rawList) == 0) return 0;
    torvex::RecordBlock list(rawList);
    auto* adapters = static_cast<GpuAdapterList*>(rawList);
    if (adapters == nullptr || !IsDisplayBackendReady() || adapters->count == 0) return 1;
    // The first adapter whose name says AMD or Intel decides.
    for (uint32_t i = 0; i < adapters->count; ++i) {
        const wchar_t* name = adapters->records[i].name;
        if (std::wcsstr(name, L"AMD") != nullptr) return InitAdl(out);
        if (std::wcsstr(name, L"Intel") == nullptr) continue;
        if (GfxServerBackend().Chosen(nullptr) || InitGfxServer()) return 1;
        return InitIgcl();
    }
    return 1;
}

uint32_t DisplayColorQuery(void* context, uint32_t code, void* buffer, uint32_t size, uint32_t* returned) {
    ColorBackend* backend = Answering(context);
    return backend != nullptr ? backend->Query(context, code, buffer, size, returned) : 0;
}

uint32_t DisplayColorSet(void* context, uint32_t code, void* input, uint32_t inputSize, uint32_t* arg5,
                         uint32_t arg6) {
    ColorBackend* backend = Answering(context);
    return backend != nullptr ? backend->Set(context, code, input, inputSize, arg5, arg6) : 0;
}
