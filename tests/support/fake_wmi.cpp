#include "support/fake_wmi.h"

#include <wbemidl.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cwchar>
#include <cstring>
#include <cwctype>
#include <mutex>
#include <set>

#include "support/fake_com.h"

namespace torvex::test {

// ------------------------------------------------------------------ values

namespace {
std::shared_ptr<VARIANT> NewVariant() {
    return std::shared_ptr<VARIANT>(new VARIANT{}, [](VARIANT* v) {
        VariantClear(v);
        delete v;
    });
}

std::wstring Lower(const std::wstring& text) {
    std::wstring out = text;
    for (auto& c : out) c = static_cast<wchar_t>(std::towlower(c));
    return out;
}
}  // namespace

WmiValue WmiValue::Str(const std::wstring& text) {
    WmiValue value;
    value.value_ = NewVariant();
    value.value_->vt = VT_BSTR;
    value.value_->bstrVal = SysAllocStringLen(text.data(), static_cast<UINT>(text.size()));
    return value;
}

WmiValue WmiValue::U32(uint32_t number) {
    WmiValue value;
    value.value_ = NewVariant();
    value.value_->vt = VT_I4;
    value.value_->ulVal = number;
    return value;
}

WmiValue WmiValue::I32(int32_t number) { return U32(static_cast<uint32_t>(number)); }

WmiValue WmiValue::I64(int64_t number) {
    WmiValue value;
    value.value_ = NewVariant();
    value.value_->vt = VT_I8;
    value.value_->llVal = number;
    return value;
}

WmiValue WmiValue::Bool(bool flag) { return BoolBits(flag ? 0xFFFF : 0); }

WmiValue WmiValue::BoolBits(uint16_t bits) {
    WmiValue value;
    value.value_ = NewVariant();
    value.value_->vt = VT_BOOL;
    value.value_->boolVal = static_cast<VARIANT_BOOL>(bits);
    return value;
}

WmiValue WmiValue::Bytes(const std::vector<uint8_t>& bytes) {
    WmiValue value;
    value.value_ = NewVariant();
    SAFEARRAY* array = SafeArrayCreateVector(VT_UI1, 0, static_cast<ULONG>(bytes.size()));
    void* data = nullptr;
    if (!bytes.empty() && SUCCEEDED(SafeArrayAccessData(array, &data))) {
        std::memcpy(data, bytes.data(), bytes.size());
        SafeArrayUnaccessData(array);
    }
    value.value_->vt = VT_ARRAY | VT_UI1;
    value.value_->parray = array;
    return value;
}

WmiValue WmiValue::NullValue() {
    WmiValue value;
    value.value_ = NewVariant();
    value.value_->vt = VT_NULL;
    return value;
}

WmiValue WmiValue::FromVariant(const VARIANT& source) {
    WmiValue value;
    value.value_ = NewVariant();
    VariantCopy(value.value_.get(), const_cast<VARIANT*>(&source));
    return value;
}

void WmiValue::ToVariant(VARIANT* out) const {
    VariantInit(out);
    if (value_) VariantCopy(out, value_.get());
}

bool WmiNameLess::operator()(const std::wstring& a, const std::wstring& b) const { return Lower(a) < Lower(b); }

// ------------------------------------------------------------------- state

struct FakeWmi::State {
    std::mutex mutex;
    std::map<std::pair<std::wstring, std::wstring>, std::vector<WmiRow>> rows;  // (lower namespace, query)
    std::map<std::wstring, HRESULT> connectFailures;                          // lower namespace
    std::map<std::wstring, HRESULT> queryFailures;
    std::map<std::wstring, size_t> fetchFailures;
    std::set<std::wstring, WmiNameLess> getFailures;
    bool failCreate = false;
    std::optional<FirmwareInput> firmwareInput;
    FirmwareHandler firmware;
    HRESULT methodFailure = S_OK;
    std::vector<MethodCall> methodCalls;
    std::vector<Query> queries;
    std::vector<std::wstring> connections;
    std::vector<std::wstring> propertyReads;
    std::atomic<long> live{0};
};

namespace {

using State = std::shared_ptr<FakeWmi::State>;
using FirmwareInput = FakeWmi::FirmwareInput;
using FirmwareHandler = FakeWmi::FirmwareHandler;
using MethodCall = FakeWmi::MethodCall;

// Counts itself in the fake's live objects.
struct Counted {
    explicit Counted(State s) : state(std::move(s)) { ++state->live; }
    ~Counted() { --state->live; }
    State state;
};

// A class object: a scripted row, the firmware method class, its input
// signature, spawned input parameters, or output parameters.
class FakeObject : public ComObject<IWbemClassObject>, Counted {
public:
    enum class Kind { Row, MethodClass, Signature, InputParams, OutputParams };
    FakeObject(State state, Kind kind, WmiRow row = {}) : Counted(std::move(state)), kind_(kind), row_(std::move(row)) {}

    const WmiRow& Row() const { return row_; }
    const std::map<std::wstring, CIMTYPE, WmiNameLess>& PutTypes() const { return putTypes_; }

    HRESULT STDMETHODCALLTYPE Get(LPCWSTR name, LONG, VARIANT* value, CIMTYPE* type, LONG*) override {
        if (name == nullptr || value == nullptr) return WBEM_E_INVALID_PARAMETER;
        {
            std::lock_guard<std::mutex> lock(state->mutex);
            state->propertyReads.emplace_back(name);
            if (state->getFailures.count(name) != 0) return WBEM_E_FAILED;
        }
        auto it = row_.find(name);
        if (it == row_.end()) return WBEM_E_NOT_FOUND;
        it->second.ToVariant(value);
        if (type != nullptr) {
            auto put = putTypes_.find(name);
            *type = put != putTypes_.end() ? put->second : 0;
        }
        return WBEM_S_NO_ERROR;
    }

    HRESULT STDMETHODCALLTYPE Put(LPCWSTR name, LONG, VARIANT* value, CIMTYPE type) override {
        if (name == nullptr || value == nullptr || kind_ != Kind::InputParams) return WBEM_E_INVALID_PARAMETER;
        const std::wstring wanted =
            state->firmwareInput == FirmwareInput::U64 ? L"u64Input" : L"u8Input";
        if (Lower(name) != Lower(wanted)) return WBEM_E_NOT_FOUND;
        row_[name] = WmiValue::FromVariant(*value);
        putTypes_[name] = type;
        return WBEM_S_NO_ERROR;
    }

    HRESULT STDMETHODCALLTYPE GetMethod(LPCWSTR name, LONG, IWbemClassObject** in, IWbemClassObject** out) override {
        if (kind_ != Kind::MethodClass || name == nullptr || std::wstring(name) != L"OemWMIfun")
            return WBEM_E_NOT_FOUND;
        if (in != nullptr) *in = new FakeObject(state, Kind::Signature);
        if (out != nullptr) *out = new FakeObject(state, Kind::OutputParams);
        return WBEM_S_NO_ERROR;
    }

    HRESULT STDMETHODCALLTYPE SpawnInstance(LONG, IWbemClassObject** instance) override {
        if (kind_ != Kind::Signature || instance == nullptr) return WBEM_E_INVALID_OPERATION;
        *instance = new FakeObject(state, Kind::InputParams);
        return WBEM_S_NO_ERROR;
    }

    // Not used by the library.
    HRESULT STDMETHODCALLTYPE GetQualifierSet(IWbemQualifierSet**) override { return WBEM_E_NOT_SUPPORTED; }
    HRESULT STDMETHODCALLTYPE Delete(LPCWSTR) override { return WBEM_E_NOT_SUPPORTED; }
    HRESULT STDMETHODCALLTYPE GetNames(LPCWSTR, LONG, VARIANT*, SAFEARRAY**) override { return WBEM_E_NOT_SUPPORTED; }
    HRESULT STDMETHODCALLTYPE BeginEnumeration(LONG) override { return WBEM_E_NOT_SUPPORTED; }
    HRESULT STDMETHODCALLTYPE Next(LONG, BSTR*, VARIANT*, CIMTYPE*, LONG*) override { return WBEM_E_NOT_SUPPORTED; }
    HRESULT STDMETHODCALLTYPE EndEnumeration() override { return WBEM_E_NOT_SUPPORTED; }
    HRESULT STDMETHODCALLTYPE GetPropertyQualifierSet(LPCWSTR, IWbemQualifierSet**) override {
        return WBEM_E_NOT_SUPPORTED;
    }
    HRESULT STDMETHODCALLTYPE Clone(IWbemClassObject**) override { return WBEM_E_NOT_SUPPORTED; }
    HRESULT STDMETHODCALLTYPE GetObjectText(LONG, BSTR*) override { return WBEM_E_NOT_SUPPORTED; }
    HRESULT STDMETHODCALLTYPE SpawnDerivedClass(LONG, IWbemClassObject**) override { return WBEM_E_NOT_SUPPORTED; }
    HRESULT STDMETHODCALLTYPE CompareTo(LONG, IWbemClassObject*) override { return WBEM_E_NOT_SUPPORTED; }
    HRESULT STDMETHODCALLTYPE GetPropertyOrigin(LPCWSTR, BSTR*) override { return WBEM_E_NOT_SUPPORTED; }
    HRESULT STDMETHODCALLTYPE InheritsFrom(LPCWSTR) override { return WBEM_E_NOT_SUPPORTED; }
    HRESULT STDMETHODCALLTYPE PutMethod(LPCWSTR, LONG, IWbemClassObject*, IWbemClassObject*) override {
        return WBEM_E_NOT_SUPPORTED;
    }
    HRESULT STDMETHODCALLTYPE DeleteMethod(LPCWSTR) override { return WBEM_E_NOT_SUPPORTED; }
    HRESULT STDMETHODCALLTYPE BeginMethodEnumeration(LONG) override { return WBEM_E_NOT_SUPPORTED; }
    HRESULT STDMETHODCALLTYPE NextMethod(LONG, BSTR*, IWbemClassObject**, IWbemClassObject**) override {
        return WBEM_E_NOT_SUPPORTED;
    }
    HRESULT STDMETHODCALLTYPE EndMethodEnumeration() override { return WBEM_E_NOT_SUPPORTED; }
    HRESULT STDMETHODCALLTYPE GetMethodQualifierSet(LPCWSTR, IWbemQualifierSet**) override {
        return WBEM_E_NOT_SUPPORTED;
    }
    HRESULT STDMETHODCALLTYPE GetMethodOrigin(LPCWSTR, BSTR*) override { return WBEM_E_NOT_SUPPORTED; }

private:
    Kind kind_;
    WmiRow row_;
    std::map<std::wstring, CIMTYPE, WmiNameLess> putTypes_;
};

class FakeEnumerator : public ComObject<IEnumWbemClassObject>, Counted {
public:
    FakeEnumerator(State state, std::vector<WmiRow> rows, size_t failAfter)
        : Counted(std::move(state)), rows_(std::move(rows)), failAfter_(failAfter) {}

    HRESULT STDMETHODCALLTYPE Next(LONG, ULONG count, IWbemClassObject** objects, ULONG* returned) override {
        if (objects == nullptr || returned == nullptr || count == 0) return WBEM_E_INVALID_PARAMETER;
        *returned = 0;
        if (next_ >= failAfter_) return WBEM_E_FAILED;
        if (next_ >= rows_.size()) return WBEM_S_FALSE;
        objects[0] = new FakeObject(state, FakeObject::Kind::Row, rows_[next_++]);
        *returned = 1;
        return WBEM_S_NO_ERROR;
    }
    HRESULT STDMETHODCALLTYPE Reset() override { return WBEM_E_NOT_SUPPORTED; }
    HRESULT STDMETHODCALLTYPE NextAsync(ULONG, IWbemObjectSink*) override { return WBEM_E_NOT_SUPPORTED; }
    HRESULT STDMETHODCALLTYPE Clone(IEnumWbemClassObject**) override { return WBEM_E_NOT_SUPPORTED; }
    HRESULT STDMETHODCALLTYPE Skip(LONG, ULONG) override { return WBEM_E_NOT_SUPPORTED; }

private:
    std::vector<WmiRow> rows_;
    size_t failAfter_;
    size_t next_ = 0;
};

std::vector<uint8_t> PacketOf(const FakeObject& input, FakeWmi::MethodCall& call) {
    std::vector<uint8_t> packet(64, 0);
    for (const auto& [name, value] : input.Row()) {
        VARIANT v;
        value.ToVariant(&v);
        if (Lower(name) == L"u64input" && v.vt == VT_BSTR) {
            call.u64Input = std::wstring(v.bstrVal, SysStringLen(v.bstrVal));
            auto type = input.PutTypes().find(name);
            if (type != input.PutTypes().end()) call.u64CimType = type->second;
            const unsigned long long word = wcstoull(v.bstrVal, nullptr, 10);
            std::memcpy(packet.data(), &word, sizeof(word));
        } else if (Lower(name) == L"u8input" && (v.vt & VT_ARRAY) != 0 && v.parray != nullptr) {
            void* data = nullptr;
            const ULONG size = v.parray->rgsabound[0].cElements;
            std::vector<uint8_t> bytes(size);
            if (SUCCEEDED(SafeArrayAccessData(v.parray, &data))) {
                std::memcpy(bytes.data(), data, size);
                SafeArrayUnaccessData(v.parray);
            }
            call.u8Input = bytes;
            std::memcpy(packet.data(), bytes.data(), std::min<size_t>(bytes.size(), packet.size()));
        }
        VariantClear(&v);
    }
    return packet;
}

class FakeServices : public ComObject<IWbemServices, IClientSecurity>, Counted {
public:
    FakeServices(State state, std::wstring nameSpace) : Counted(std::move(state)), nameSpace_(std::move(nameSpace)) {}

    HRESULT STDMETHODCALLTYPE ExecQuery(const BSTR language, const BSTR query, LONG flags, IWbemContext*,
                                        IEnumWbemClassObject** result) override {
        if (result == nullptr) return WBEM_E_INVALID_PARAMETER;
        const std::wstring text = query != nullptr ? query : L"";
        std::vector<WmiRow> rows;
        size_t failAfter = SIZE_MAX;
        {
            std::lock_guard<std::mutex> lock(state->mutex);
            state->queries.push_back({nameSpace_, language != nullptr ? language : L"", text, flags});
            auto failure = state->queryFailures.find(text);
            if (failure != state->queryFailures.end()) return failure->second;
            auto it = state->rows.find({Lower(nameSpace_), text});
            if (it != state->rows.end()) rows = it->second;
            auto fetch = state->fetchFailures.find(text);
            if (fetch != state->fetchFailures.end()) failAfter = fetch->second;
        }
        *result = new FakeEnumerator(state, std::move(rows), failAfter);
        return WBEM_S_NO_ERROR;
    }

    HRESULT STDMETHODCALLTYPE GetObject(const BSTR path, LONG, IWbemContext*, IWbemClassObject** object,
                                        IWbemCallResult**) override {
        if (object == nullptr) return WBEM_E_INVALID_PARAMETER;
        if (!state->firmwareInput || Lower(nameSpace_) != L"root\\wmi" || path == nullptr ||
            std::wstring(path) != L"OemWMIMethod")
            return WBEM_E_NOT_FOUND;
        *object = new FakeObject(state, FakeObject::Kind::MethodClass);
        return WBEM_S_NO_ERROR;
    }

    HRESULT STDMETHODCALLTYPE ExecMethod(const BSTR path, const BSTR method, LONG, IWbemContext*,
                                         IWbemClassObject* input, IWbemClassObject** output,
                                         IWbemCallResult**) override {
        MethodCall call;
        call.nameSpace = nameSpace_;
        call.objectPath = path != nullptr ? path : L"";
        call.method = method != nullptr ? method : L"";
        std::vector<uint8_t> packet(64, 0);
        if (input != nullptr) packet = PacketOf(*static_cast<FakeObject*>(input), call);
        FirmwareHandler handler;
        HRESULT failure;
        {
            std::lock_guard<std::mutex> lock(state->mutex);
            state->methodCalls.push_back(call);
            handler = state->firmware;
            failure = state->methodFailure;
        }
        if (FAILED(failure)) return failure;
        if (!state->firmwareInput || call.method != L"OemWMIfun") return WBEM_E_INVALID_METHOD;
        if (output == nullptr) return WBEM_S_NO_ERROR;
        WmiRow row;
        row[L"u8Output"] = WmiValue::Bytes(handler ? handler(packet) : std::vector<uint8_t>(256, 0));
        *output = new FakeObject(state, FakeObject::Kind::OutputParams, std::move(row));
        return WBEM_S_NO_ERROR;
    }

    // IClientSecurity: CoSetProxyBlanket on the services lands here.
    HRESULT STDMETHODCALLTYPE QueryBlanket(IUnknown*, DWORD*, DWORD*, OLECHAR**, DWORD*, DWORD*, void**,
                                           DWORD*) override {
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE SetBlanket(IUnknown*, DWORD, DWORD, OLECHAR*, DWORD, DWORD, void*, DWORD) override {
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE CopyProxy(IUnknown*, IUnknown**) override { return E_NOTIMPL; }

    // Not used by the library.
    HRESULT STDMETHODCALLTYPE OpenNamespace(const BSTR, LONG, IWbemContext*, IWbemServices**,
                                            IWbemCallResult**) override {
        return WBEM_E_NOT_SUPPORTED;
    }
    HRESULT STDMETHODCALLTYPE CancelAsyncCall(IWbemObjectSink*) override { return WBEM_E_NOT_SUPPORTED; }
    HRESULT STDMETHODCALLTYPE QueryObjectSink(LONG, IWbemObjectSink**) override { return WBEM_E_NOT_SUPPORTED; }
    HRESULT STDMETHODCALLTYPE GetObjectAsync(const BSTR, LONG, IWbemContext*, IWbemObjectSink*) override {
        return WBEM_E_NOT_SUPPORTED;
    }
    HRESULT STDMETHODCALLTYPE PutClass(IWbemClassObject*, LONG, IWbemContext*, IWbemCallResult**) override {
        return WBEM_E_NOT_SUPPORTED;
    }
    HRESULT STDMETHODCALLTYPE PutClassAsync(IWbemClassObject*, LONG, IWbemContext*, IWbemObjectSink*) override {
        return WBEM_E_NOT_SUPPORTED;
    }
    HRESULT STDMETHODCALLTYPE DeleteClass(const BSTR, LONG, IWbemContext*, IWbemCallResult**) override {
        return WBEM_E_NOT_SUPPORTED;
    }
    HRESULT STDMETHODCALLTYPE DeleteClassAsync(const BSTR, LONG, IWbemContext*, IWbemObjectSink*) override {
        return WBEM_E_NOT_SUPPORTED;
    }
    HRESULT STDMETHODCALLTYPE CreateClassEnum(const BSTR, LONG, IWbemContext*, IEnumWbemClassObject**) override {
        return WBEM_E_NOT_SUPPORTED;
    }
    HRESULT STDMETHODCALLTYPE CreateClassEnumAsync(const BSTR, LONG, IWbemContext*, IWbemObjectSink*) override {
        return WBEM_E_NOT_SUPPORTED;
    }
    HRESULT STDMETHODCALLTYPE PutInstance(IWbemClassObject*, LONG, IWbemContext*, IWbemCallResult**) override {
        return WBEM_E_NOT_SUPPORTED;
    }
    HRESULT STDMETHODCALLTYPE PutInstanceAsync(IWbemClassObject*, LONG, IWbemContext*, IWbemObjectSink*) override {
        return WBEM_E_NOT_SUPPORTED;
    }
    HRESULT STDMETHODCALLTYPE DeleteInstance(const BSTR, LONG, IWbemContext*, IWbemCallResult**) override {
        return WBEM_E_NOT_SUPPORTED;
    }
    HRESULT STDMETHODCALLTYPE DeleteInstanceAsync(const BSTR, LONG, IWbemContext*, IWbemObjectSink*) override {
        return WBEM_E_NOT_SUPPORTED;
    }
    HRESULT STDMETHODCALLTYPE CreateInstanceEnum(const BSTR, LONG, IWbemContext*, IEnumWbemClassObject**) override {
        return WBEM_E_NOT_SUPPORTED;
    }
    HRESULT STDMETHODCALLTYPE CreateInstanceEnumAsync(const BSTR, LONG, IWbemContext*, IWbemObjectSink*) override {
        return WBEM_E_NOT_SUPPORTED;
    }
    HRESULT STDMETHODCALLTYPE ExecQueryAsync(const BSTR, const BSTR, LONG, IWbemContext*, IWbemObjectSink*) override {
        return WBEM_E_NOT_SUPPORTED;
    }
    HRESULT STDMETHODCALLTYPE ExecNotificationQuery(const BSTR, const BSTR, LONG, IWbemContext*,
                                                    IEnumWbemClassObject**) override {
        return WBEM_E_NOT_SUPPORTED;
    }
    HRESULT STDMETHODCALLTYPE ExecNotificationQueryAsync(const BSTR, const BSTR, LONG, IWbemContext*,
                                                         IWbemObjectSink*) override {
        return WBEM_E_NOT_SUPPORTED;
    }
    HRESULT STDMETHODCALLTYPE ExecMethodAsync(const BSTR, const BSTR, LONG, IWbemContext*, IWbemClassObject*,
                                              IWbemObjectSink*) override {
        return WBEM_E_NOT_SUPPORTED;
    }

private:
    std::wstring nameSpace_;
};

class FakeLocator : public ComObject<IWbemLocator>, Counted {
public:
    explicit FakeLocator(State state) : Counted(std::move(state)) {}

    HRESULT STDMETHODCALLTYPE ConnectServer(const BSTR path, const BSTR, const BSTR, const BSTR, LONG, const BSTR,
                                            IWbemContext*, IWbemServices** services) override {
        if (services == nullptr) return WBEM_E_INVALID_PARAMETER;
        const std::wstring nameSpace = path != nullptr ? path : L"";
        {
            std::lock_guard<std::mutex> lock(state->mutex);
            state->connections.push_back(nameSpace);
            auto failure = state->connectFailures.find(Lower(nameSpace));
            if (failure != state->connectFailures.end()) return failure->second;
        }
        *services = new FakeServices(state, nameSpace);
        return WBEM_S_NO_ERROR;
    }
};

}  // namespace

// ------------------------------------------------------------------ FakeWmi

FakeWmi::FakeWmi() : state_(std::make_shared<State>()) {
    auto* factory = new FunctionClassFactory([state = state_](REFIID iid, void** out) -> HRESULT {
        if (state->failCreate) return E_FAIL;
        auto* locator = new FakeLocator(state);
        const HRESULT hr = locator->QueryInterface(iid, out);
        locator->Release();
        return hr;
    });
    const HRESULT hr = CoRegisterClassObject(CLSID_WbemLocator, static_cast<IClassFactory*>(factory),
                                             CLSCTX_INPROC_SERVER, REGCLS_MULTIPLEUSE, &cookie_);
    factory->Release();
    if (FAILED(hr)) ADD_FAILURE() << "cannot register the fake WMI locator: 0x" << std::hex << hr;
}

FakeWmi::~FakeWmi() {
    if (cookie_ != 0) CoRevokeClassObject(cookie_);
}

void FakeWmi::On(const std::wstring& nameSpace, const std::wstring& query, std::vector<WmiRow> rows) {
    std::lock_guard<std::mutex> lock(state_->mutex);
    state_->rows[{Lower(nameSpace), query}] = std::move(rows);
}

void FakeWmi::FailConnect(const std::wstring& nameSpace, HRESULT error) {
    std::lock_guard<std::mutex> lock(state_->mutex);
    state_->connectFailures[Lower(nameSpace)] = error;
}

void FakeWmi::FailQuery(const std::wstring& query, HRESULT error) {
    std::lock_guard<std::mutex> lock(state_->mutex);
    state_->queryFailures[query] = error;
}

void FakeWmi::FailFetchAfter(const std::wstring& query, size_t rows) {
    std::lock_guard<std::mutex> lock(state_->mutex);
    state_->fetchFailures[query] = rows;
}

void FakeWmi::FailGet(const std::wstring& property) {
    std::lock_guard<std::mutex> lock(state_->mutex);
    state_->getFailures.insert(property);
}

void FakeWmi::FailCreate(bool fail) { state_->failCreate = fail; }

void FakeWmi::SetFirmware(FirmwareInput input, FirmwareHandler handler) {
    std::lock_guard<std::mutex> lock(state_->mutex);
    state_->firmwareInput = input;
    state_->firmware = std::move(handler);
}

void FakeWmi::FailMethod(HRESULT error) {
    std::lock_guard<std::mutex> lock(state_->mutex);
    state_->methodFailure = error;
}

std::vector<FakeWmi::MethodCall> FakeWmi::MethodCalls() const {
    std::lock_guard<std::mutex> lock(state_->mutex);
    return state_->methodCalls;
}

std::vector<FakeWmi::Query> FakeWmi::Queries() const {
    std::lock_guard<std::mutex> lock(state_->mutex);
    return state_->queries;
}

std::vector<std::wstring> FakeWmi::Connections() const {
    std::lock_guard<std::mutex> lock(state_->mutex);
    return state_->connections;
}

std::vector<std::wstring> FakeWmi::PropertyReads() const {
    std::lock_guard<std::mutex> lock(state_->mutex);
    return state_->propertyReads;
}

long FakeWmi::LiveObjects() const { return state_->live; }

void FakeWmi::Reset() {
    std::lock_guard<std::mutex> lock(state_->mutex);
    state_->rows.clear();
    state_->connectFailures.clear();
    state_->queryFailures.clear();
    state_->fetchFailures.clear();
    state_->getFailures.clear();
    state_->failCreate = false;
    state_->firmwareInput.reset();
    state_->firmware = nullptr;
    state_->methodFailure = S_OK;
    state_->methodCalls.clear();
    state_->queries.clear();
    state_->connections.clear();
    state_->propertyReads.clear();
}

}  // namespace torvex::test
