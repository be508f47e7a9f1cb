// The OEM firmware's ACPI-WMI method ("OemWMIfun" of "OemWMIMethod" in
// ROOT\WMI): which input parameter it takes and its answer to each packet.
//
//   "firmware": {"present": true, "input": "u64Input", "answers": {"030c": {"output": "0001", "length": 256}}}
//
// A packet is keyed by its bytes without trailing zeros. Replay keeps the
// firmware's state: a set of an item, or of the charge-control pair, changes
// what the matching read answers afterwards.
#include <cstring>
#include <cwchar>

#include "com_object.h"
#include "source.h"

namespace torvex::sim::detail {
namespace {

constexpr size_t kPacketBytes = 64;
constexpr long long kMaxOutputBytes = 65536;
constexpr HRESULT kNotFound = static_cast<HRESULT>(0x80041002);  // WBEM_E_NOT_FOUND

std::string PacketKey(const std::vector<uint8_t>& packet) {
    size_t used = packet.size();
    while (used > 1 && packet[used - 1] == 0) --used;
    return Hex(packet.data(), used);
}

bool IsFirmwareClass(const std::wstring& nameSpace, const wchar_t* path) {
    return path != nullptr && _wcsicmp(nameSpace.c_str(), L"ROOT\\WMI") == 0 && std::wcscmp(path, L"OemWMIMethod") == 0;
}

void Validate(const Json& firmware, const At& at) {
    ExpectObject(firmware, at);
    ExpectOnly(firmware, at, {"present", "input", "answers"});
    if (!firmware.contains("present")) Expected(at / "present", "true or false");
    ExpectBool(firmware["present"], at / "present");
    if (firmware.contains("input")) {
        const Json& input = firmware["input"];
        if (!input.is_string() || (input != "u64Input" && input != "u8Input"))
            Expected(at / "input", "\"u64Input\" or \"u8Input\"");
    }
    if (!firmware.contains("answers")) return;
    ExpectObject(firmware["answers"], at / "answers");
    for (const auto& [packet, answer] : firmware["answers"].items()) {
        const At a = at / "answers" / packet;
        ExpectHex(Json(packet), a, kPacketBytes);
        ExpectObject(answer, a);
        ExpectOnly(answer, a, {"output", "length", "error"});
        if (answer.contains("error")) {
            ExpectHresult(answer["error"], a / "error");
            continue;
        }
        if (!answer.contains("output") || !answer.contains("length")) Expected(a, "\"output\" and \"length\", or \"error\"");
        ExpectInteger(answer["length"], a / "length", 0, kMaxOutputBytes);
        ExpectHex(answer["output"], a / "output", answer["length"].get<size_t>());
    }
}

// The method class, its input signature, input parameters and output
// parameters: live objects wrapped, or made from the profile.
class FirmwareObject : public ClassObjectBase {
public:
    enum class Kind { Class, Signature, Input, Output };
    FirmwareObject(Kind kind, IWbemClassObject* real) : kind_(kind), real_(real) {}

    Kind kind() const { return kind_; }
    IWbemClassObject* real() const { return real_.get(); }
    std::vector<uint8_t> packet = std::vector<uint8_t>(kPacketBytes, 0);
    std::string key;      // output: the packet it answers
    Json answer;          // output under replay

    HRESULT STDMETHODCALLTYPE GetMethod(LPCWSTR name, LONG flags, IWbemClassObject** in,
                                        IWbemClassObject** out) override {
        if (kind_ != Kind::Class || name == nullptr || in == nullptr) return WBEM_E_INVALID_PARAMETER;
        *in = nullptr;
        IWbemClassObject* signature = nullptr;
        if (real_ != nullptr) {
            const HRESULT hr = real_->GetMethod(name, flags, &signature, out);
            if (FAILED(hr) || signature == nullptr) return FAILED(hr) ? hr : static_cast<HRESULT>(WBEM_E_FAILED);
        } else if (std::wcscmp(name, L"OemWMIfun") != 0) {
            return kNotFound;
        }
        if (out != nullptr && real_ == nullptr) *out = nullptr;
        *in = new FirmwareObject(Kind::Signature, signature);
        return WBEM_S_NO_ERROR;
    }

    HRESULT STDMETHODCALLTYPE SpawnInstance(LONG flags, IWbemClassObject** instance) override {
        if (kind_ != Kind::Signature || instance == nullptr) return WBEM_E_INVALID_OPERATION;
        IWbemClassObject* spawned = nullptr;
        if (real_ != nullptr) {
            const HRESULT hr = real_->SpawnInstance(flags, &spawned);
            if (FAILED(hr) || spawned == nullptr) return FAILED(hr) ? hr : static_cast<HRESULT>(WBEM_E_FAILED);
        }
        *instance = new FirmwareObject(Kind::Input, spawned);
        return WBEM_S_NO_ERROR;
    }

    HRESULT STDMETHODCALLTYPE Put(LPCWSTR name, LONG flags, VARIANT* value, CIMTYPE type) override {
        if (kind_ != Kind::Input || name == nullptr || value == nullptr) return WBEM_E_INVALID_PARAMETER;
        Lock lock(Active().mutex);
        const std::string parameter = Utf8(name);
        if (real_ != nullptr) {
            const HRESULT hr = real_->Put(name, flags, value, type);
            if (FAILED(hr)) return Refused(parameter, hr);
            Keep({"firmware", "input"}, parameter);
        } else {
            const Json* input = Replayed({"firmware", "input"});
            if (input == nullptr || Lower(input->get<std::string>()) != Lower(parameter)) return Refused(parameter, kNotFound);
            Keep({"firmware", "input"}, *input);
        }
        Note("firmware", "put " + parameter, "accepted", false,
             "VARIANT type " + std::to_string(value->vt) + ", CIM type " + std::to_string(type) +
                 (value->vt == VT_BSTR && value->bstrVal != nullptr ? ", text " + Utf8(value->bstrVal) : std::string()));
        if (value->vt == VT_BSTR && value->bstrVal != nullptr) {
            const unsigned long long word = wcstoull(value->bstrVal, nullptr, 10);
            std::memcpy(packet.data(), &word, sizeof(word));
        } else if (value->vt == (VT_ARRAY | VT_UI1) && value->parray != nullptr) {
            void* data = nullptr;
            const size_t size = std::min<size_t>(value->parray->rgsabound[0].cElements, kPacketBytes);
            if (SUCCEEDED(SafeArrayAccessData(value->parray, &data))) {
                std::memcpy(packet.data(), data, size);
                SafeArrayUnaccessData(value->parray);
            }
        }
        return WBEM_S_NO_ERROR;
    }

    HRESULT STDMETHODCALLTYPE Get(LPCWSTR name, LONG flags, VARIANT* value, CIMTYPE* type, LONG* flavor) override {
        if (kind_ != Kind::Output || name == nullptr || value == nullptr) return WBEM_E_INVALID_PARAMETER;
        if (_wcsicmp(name, L"u8Output") != 0) return kNotFound;
        Lock lock(Active().mutex);
        if (real_ != nullptr) {
            VARIANT live;
            VariantInit(&live);
            const HRESULT hr = real_->Get(name, flags, &live, type, flavor);
            if (FAILED(hr)) return hr;
            answer = Json{{"output", ""}, {"length", 0}};
            if (live.vt == (VT_ARRAY | VT_UI1) && live.parray != nullptr) {
                void* data = nullptr;
                const ULONG size = live.parray->rgsabound[0].cElements;
                if (SUCCEEDED(SafeArrayAccessData(live.parray, &data))) {
                    std::vector<uint8_t> bytes(static_cast<const uint8_t*>(data), static_cast<const uint8_t*>(data) + size);
                    SafeArrayUnaccessData(live.parray);
                    while (!bytes.empty() && bytes.back() == 0) bytes.pop_back();
                    answer = Json{{"output", Hex(bytes.data(), bytes.size())}, {"length", size}};
                }
            }
            VariantClear(&live);
        }
        Keep({"firmware", "answers", key}, answer);
        std::vector<uint8_t> bytes;
        ParseHex(answer["output"].get<std::string>(), bytes);
        bytes.resize(answer["length"].get<size_t>(), 0);
        SAFEARRAY* array = SafeArrayCreateVector(VT_UI1, 0, static_cast<ULONG>(bytes.size()));
        void* data = nullptr;
        if (array == nullptr || FAILED(SafeArrayAccessData(array, &data))) {
            if (array != nullptr) SafeArrayDestroy(array);
            return WBEM_E_OUT_OF_MEMORY;
        }
        if (!bytes.empty()) std::memcpy(data, bytes.data(), bytes.size());
        SafeArrayUnaccessData(array);
        VariantInit(value);
        value->vt = VT_ARRAY | VT_UI1;
        value->parray = array;
        return WBEM_S_NO_ERROR;
    }

private:
    static HRESULT Refused(const std::string& parameter, HRESULT hr) {
        Note("firmware", "put " + parameter, "refused", true);
        return hr;
    }

    Kind kind_;
    ComPtr<IWbemClassObject> real_;
};

// Replay only: a set the profile has no answer for is accepted, and the
// matching read answers the new value from then on.
bool ApplySet(const std::vector<uint8_t>& packet, Json& answers) {
    auto read = [&answers](std::vector<uint8_t> readPacket) -> Json& {
        Json& entry = answers[PacketKey(readPacket)];
        if (!entry.is_object() || !entry.contains("output")) entry = Json{{"output", "00"}, {"length", 256}};
        return entry;
    };
    auto setByte = [](Json& entry, size_t index, uint8_t value) {
        std::vector<uint8_t> bytes;
        ParseHex(entry["output"].get<std::string>(), bytes);
        if (bytes.size() <= index) bytes.resize(index + 1, 0);
        bytes[0] = 0;
        bytes[index] = value;
        entry["output"] = Hex(bytes.data(), bytes.size());
        if (entry["length"].get<size_t>() < bytes.size()) entry["length"] = bytes.size();
    };
    if (packet[0] == 0x03 && packet[1] == 0x0F) {  // set item packet[2] to packet[3]
        setByte(read({0x03, 0x0C, packet[2]}), 1, packet[3]);
        return true;
    }
    if (packet[0] == 0x03 && packet[1] == 0x10) {  // the charge-control pair
        Json& entry = read({0x03, 0x11});
        setByte(entry, 1, packet[2]);
        setByte(entry, 2, packet[3]);
        return true;
    }
    return false;
}

void Install(Installer&) {}  // reached through the WMI services

}  // namespace

HRESULT FirmwareGetObject(IWbemServices* real, const std::wstring& nameSpace, const wchar_t* path,
                          IWbemClassObject** out) {
    if (out == nullptr) return WBEM_E_INVALID_PARAMETER;
    *out = nullptr;
    Lock lock(Active().mutex);
    const std::string call = "class " + Utf8(path) + " in " + Utf8(nameSpace);
    IWbemClassObject* object = nullptr;
    if (real != nullptr) {
        const HRESULT hr = real->GetObject(path != nullptr ? const_cast<BSTR>(path) : nullptr, 0, nullptr, &object, nullptr);
        if (IsFirmwareClass(nameSpace, path)) Keep({"firmware", "present"}, SUCCEEDED(hr) && object != nullptr);
        if (FAILED(hr) || object == nullptr) {
            Note("firmware", call, "absent", true);
            return FAILED(hr) ? hr : static_cast<HRESULT>(WBEM_E_FAILED);
        }
    } else {
        const Json* present = Replayed({"firmware", "present"});
        if (!IsFirmwareClass(nameSpace, path) || present == nullptr || !present->get<bool>()) {
            if (IsFirmwareClass(nameSpace, path) && present != nullptr) Keep({"firmware", "present"}, false);
            Note("firmware", call, present == nullptr ? "not in the profile" : "absent", true);
            return kNotFound;
        }
        Keep({"firmware", "present"}, true);
    }
    Note("firmware", call, "present", false);
    *out = new FirmwareObject(FirmwareObject::Kind::Class, object);
    return WBEM_S_NO_ERROR;
}

HRESULT FirmwareExecMethod(IWbemServices* real, const std::wstring&, const wchar_t* path, const wchar_t* method,
                           IWbemClassObject* input, IWbemClassObject** output) {
    auto* in = dynamic_cast<FirmwareObject*>(input);
    if (in == nullptr || in->kind() != FirmwareObject::Kind::Input) return WBEM_E_INVALID_PARAMETER;
    Lock lock(Active().mutex);
    const std::string key = PacketKey(in->packet);
    const std::string call = Utf8(method) + " packet " + key;
    const std::string detail = "object " + Utf8(path);
    if (output != nullptr) *output = nullptr;
    const bool set = in->packet[0] == 0x03 && (in->packet[1] == 0x0F || in->packet[1] == 0x10);
    if (set && Unchangeable("firmware", call)) return WBEM_E_ACCESS_DENIED;
    auto result = std::make_unique<FirmwareObject>(FirmwareObject::Kind::Output, nullptr);
    result->key = key;
    if (real != nullptr) {
        IWbemClassObject* live = nullptr;
        const HRESULT hr = real->ExecMethod(const_cast<BSTR>(path), const_cast<BSTR>(method), 0, nullptr, in->real(),
                                            output != nullptr ? &live : nullptr, nullptr);
        if (FAILED(hr)) {
            Keep({"firmware", "answers", key}, Json{{"error", HresultText(hr)}});
            Note("firmware", call, "error " + HresultText(hr), true, detail);
            return hr;
        }
        if (output == nullptr || live == nullptr) return hr;
        result.reset(new FirmwareObject(FirmwareObject::Kind::Output, live));
        result->key = key;
    } else {
        Json* answers = ReplayedForChange({"firmware", "answers"});
        const Json* answer = answers != nullptr ? Child(answers, key) : nullptr;
        if (answer == nullptr && answers != nullptr && ApplySet(in->packet, *answers)) {
            result->answer = Json{{"output", "00"}, {"length", 256}};
        } else if (answer == nullptr) {
            Note("firmware", call, "no answer in the profile", true, detail);
            return WBEM_E_FAILED;
        } else if (answer->contains("error")) {
            Keep({"firmware", "answers", key}, *answer);
            Note("firmware", call, "error " + (*answer)["error"].get<std::string>(), true, detail);
            return ParseHresult((*answer)["error"].get<std::string>());
        } else {
            result->answer = *answer;
        }
    }
    Note("firmware", call, "answered", false, detail);
    if (output != nullptr) *output = result.release();
    return WBEM_S_NO_ERROR;
}

const SourceDef kFirmwareSource = {"firmware", Validate, Install, nullptr};

}  // namespace torvex::sim::detail
