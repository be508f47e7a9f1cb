// WMI: rows per namespace and exact query text, and the properties the
// library read from them, with the value types WMI handed out.
//
//   "wmi": {"ROOT\\CIMV2": {"queries": {"SELECT Name FROM Win32_Processor": {"rows": [{"Name": "..."}]}}}}
#include <map>
#include <memory>

#include "com_object.h"
#include "source.h"

namespace torvex::sim::detail {
namespace {

constexpr HRESULT kNoNamespace = static_cast<HRESULT>(0x8004100E);  // WBEM_E_INVALID_NAMESPACE
constexpr HRESULT kNoClass = static_cast<HRESULT>(0x80041010);      // WBEM_E_INVALID_CLASS

// ---------------------------------------------------------------- values

struct VtName {
    VARTYPE vt;
    const char* name;
};
constexpr VtName kVtNames[] = {
    {VT_EMPTY, "VT_EMPTY"}, {VT_I1, "VT_I1"},   {VT_UI1, "VT_UI1"},   {VT_I2, "VT_I2"},     {VT_UI2, "VT_UI2"},
    {VT_I4, "VT_I4"},       {VT_UI4, "VT_UI4"}, {VT_I8, "VT_I8"},     {VT_UI8, "VT_UI8"},   {VT_INT, "VT_INT"},
    {VT_UINT, "VT_UINT"},   {VT_R4, "VT_R4"},   {VT_R8, "VT_R8"},     {VT_BOOL, "VT_BOOL"}, {VT_BSTR, "VT_BSTR"},
};

const char* NameOf(VARTYPE vt) {
    for (const VtName& entry : kVtNames)
        if (entry.vt == vt) return entry.name;
    return nullptr;
}

bool TypeOf(const std::string& name, VARTYPE& vt) {
    const bool array = name.rfind("VT_ARRAY|", 0) == 0;
    const std::string element = array ? name.substr(9) : name;
    for (const VtName& entry : kVtNames) {
        if (element != entry.name) continue;
        if (array && entry.vt == VT_EMPTY) return false;
        vt = static_cast<VARTYPE>(array ? (VT_ARRAY | entry.vt) : entry.vt);
        return true;
    }
    return false;
}

// One element of the given type at `data`, as JSON.
Json EncodeElement(VARTYPE vt, const void* data) {
    switch (vt) {
    case VT_I1: return *static_cast<const signed char*>(data);
    case VT_UI1: return *static_cast<const unsigned char*>(data);
    case VT_I2: return *static_cast<const short*>(data);
    case VT_UI2: return *static_cast<const unsigned short*>(data);
    case VT_I4: case VT_INT: return *static_cast<const int*>(data);
    case VT_UI4: case VT_UINT: return *static_cast<const unsigned int*>(data);
    case VT_I8: return *static_cast<const long long*>(data);
    case VT_UI8: return *static_cast<const unsigned long long*>(data);
    case VT_R4: return *static_cast<const float*>(data);
    case VT_R8: return *static_cast<const double*>(data);
    case VT_BOOL: return static_cast<unsigned short>(*static_cast<const VARIANT_BOOL*>(data));
    case VT_BSTR: return Utf8(*static_cast<const BSTR*>(data));
    default: return nullptr;
    }
}

size_t ElementSize(VARTYPE vt) {
    switch (vt) {
    case VT_I1: case VT_UI1: return 1;
    case VT_I2: case VT_UI2: case VT_BOOL: return 2;
    case VT_I4: case VT_UI4: case VT_INT: case VT_UINT: case VT_R4: return 4;
    case VT_BSTR: return sizeof(BSTR);
    default: return 8;
    }
}

void DecodeElement(VARTYPE vt, const Json& value, void* data) {
    switch (vt) {
    case VT_I1: *static_cast<signed char*>(data) = static_cast<signed char>(value.get<long long>()); break;
    case VT_UI1: *static_cast<unsigned char*>(data) = static_cast<unsigned char>(value.get<long long>()); break;
    case VT_I2: *static_cast<short*>(data) = static_cast<short>(value.get<long long>()); break;
    case VT_UI2: case VT_BOOL:
        *static_cast<unsigned short*>(data) = static_cast<unsigned short>(value.get<long long>());
        break;
    case VT_I4: case VT_INT: case VT_UI4: case VT_UINT:
        *static_cast<unsigned int*>(data) = static_cast<unsigned int>(value.get<long long>());
        break;
    case VT_I8: *static_cast<long long*>(data) = value.get<long long>(); break;
    case VT_UI8: *static_cast<unsigned long long*>(data) = value.get<unsigned long long>(); break;
    case VT_R4: *static_cast<float*>(data) = value.get<float>(); break;
    case VT_R8: *static_cast<double*>(data) = value.get<double>(); break;
    case VT_BSTR: *static_cast<BSTR*>(data) = SysAllocString(Wide(value.get<std::string>()).c_str()); break;
    default: break;
    }
}

// Plain JSON for the usual forms (text, VARIANT_TRUE/FALSE, null, 32-bit
// integers); {"vt": ..., "value": ...} for every other type.
Json EncodeVariant(const VARIANT& v, bool& supported) {
    supported = true;
    if (v.vt == VT_NULL) return nullptr;
    if (v.vt == VT_BSTR) return Utf8(v.bstrVal);
    if (v.vt == VT_I4) return v.lVal;
    if (v.vt == VT_BOOL && (v.boolVal == VARIANT_TRUE || v.boolVal == VARIANT_FALSE)) return v.boolVal == VARIANT_TRUE;
    if (v.vt == VT_EMPTY) return Json{{"vt", "VT_EMPTY"}};
    const VARTYPE element = static_cast<VARTYPE>(v.vt & ~VT_ARRAY);
    if ((v.vt & VT_ARRAY) == 0) {
        if (NameOf(v.vt) == nullptr || (v.vt & VT_BYREF) != 0) {
            supported = false;
            return Json{{"vt", "VT_EMPTY"}};
        }
        return Json{{"vt", NameOf(v.vt)}, {"value", EncodeElement(v.vt, &v.lVal)}};
    }
    if (NameOf(element) == nullptr || element == VT_EMPTY || v.parray == nullptr || SafeArrayGetDim(v.parray) != 1) {
        supported = false;
        return Json{{"vt", "VT_EMPTY"}};
    }
    const ULONG count = v.parray->rgsabound[0].cElements;
    void* data = nullptr;
    if (FAILED(SafeArrayAccessData(v.parray, &data))) {
        supported = false;
        return Json{{"vt", "VT_EMPTY"}};
    }
    Json value;
    if (element == VT_UI1) {
        value = Hex(data, count);
    } else {
        value = Json::array();
        for (ULONG i = 0; i < count; ++i)
            value.push_back(EncodeElement(element, static_cast<const uint8_t*>(data) + i * ElementSize(element)));
    }
    SafeArrayUnaccessData(v.parray);
    return Json{{"vt", std::string("VT_ARRAY|") + NameOf(element)}, {"value", value}};
}

void DecodeVariant(const Json& j, VARIANT* out) {
    VariantInit(out);
    if (j.is_null()) {
        out->vt = VT_NULL;
    } else if (j.is_string()) {
        out->vt = VT_BSTR;
        out->bstrVal = SysAllocString(Wide(j.get<std::string>()).c_str());
    } else if (j.is_boolean()) {
        out->vt = VT_BOOL;
        out->boolVal = j.get<bool>() ? VARIANT_TRUE : VARIANT_FALSE;
    } else if (j.is_number_integer()) {
        out->vt = VT_I4;
        out->ulVal = static_cast<ULONG>(j.get<long long>());
    } else if (j.is_object()) {
        VARTYPE vt = VT_EMPTY;
        TypeOf(j["vt"].get<std::string>(), vt);
        if (vt == VT_EMPTY) return;
        if ((vt & VT_ARRAY) == 0) {
            out->vt = vt;
            DecodeElement(vt, j["value"], &out->lVal);
            return;
        }
        const VARTYPE element = static_cast<VARTYPE>(vt & ~VT_ARRAY);
        std::vector<uint8_t> bytes;
        if (element == VT_UI1) ParseHex(j["value"].get<std::string>(), bytes);
        const ULONG count = static_cast<ULONG>(element == VT_UI1 ? bytes.size() : j["value"].size());
        SAFEARRAY* array = SafeArrayCreateVector(element, 0, count);
        void* data = nullptr;
        if (array == nullptr || FAILED(SafeArrayAccessData(array, &data))) {
            if (array != nullptr) SafeArrayDestroy(array);
            return;
        }
        for (ULONG i = 0; i < count; ++i) {
            auto* at = static_cast<uint8_t*>(data) + i * ElementSize(element);
            if (element == VT_UI1) *at = bytes[i];
            else DecodeElement(element, j["value"][i], at);
        }
        SafeArrayUnaccessData(array);
        out->vt = vt;
        out->parray = array;
    }
}

void ValidateElement(VARTYPE vt, const Json& value, const At& at) {
    switch (vt) {
    case VT_I1: ExpectInteger(value, at, -128, 127); break;
    case VT_UI1: ExpectInteger(value, at, 0, 255); break;
    case VT_I2: ExpectInteger(value, at, -32768, 32767); break;
    case VT_UI2: case VT_BOOL: ExpectInteger(value, at, 0, 65535); break;
    case VT_I4: case VT_INT: case VT_UI4: case VT_UINT: ExpectInteger(value, at, INT32_MIN, UINT32_MAX); break;
    case VT_I8: ExpectInteger(value, at, INT64_MIN, INT64_MAX); break;
    case VT_UI8: ExpectUnsigned(value, at); break;
    case VT_R4: case VT_R8:
        if (!value.is_number()) Expected(at, "a number");
        break;
    case VT_BSTR: ExpectString(value, at); break;
    default: break;
    }
}

void ValidateValue(const Json& value, const At& at) {
    if (value.is_null() || value.is_string() || value.is_boolean()) return;
    if (value.is_number_integer() || value.is_number_unsigned()) {
        ExpectInteger(value, at, INT32_MIN, UINT32_MAX);
        return;
    }
    const char* shape = "a text, true/false, null, a 32-bit integer or {\"vt\": ..., \"value\": ...}";
    if (!value.is_object() || !value.contains("vt") || !value["vt"].is_string()) Expected(at, shape);
    ExpectOnly(value, at, {"vt", "value"});
    VARTYPE vt = VT_EMPTY;
    if (!TypeOf(value["vt"].get<std::string>(), vt)) Expected(at / "vt", "a VARIANT type such as \"VT_I8\" or \"VT_ARRAY|VT_UI1\"");
    if (vt == VT_EMPTY) return;
    if (!value.contains("value")) Expected(at / "value", "the value");
    const VARTYPE element = static_cast<VARTYPE>(vt & ~VT_ARRAY);
    if ((vt & VT_ARRAY) == 0) return ValidateElement(vt, value["value"], at / "value");
    if (element == VT_UI1) return ExpectHex(value["value"], at / "value");
    ExpectArray(value["value"], at / "value");
    for (size_t i = 0; i < value["value"].size(); ++i) ValidateElement(element, value["value"][i], at / "value" / i);
}

void Validate(const Json& wmi, const At& at) {
    ExpectObject(wmi, at);
    for (const auto& [nameSpace, entry] : wmi.items()) {
        const At ns = at / nameSpace;
        ExpectObject(entry, ns);
        ExpectOnly(entry, ns, {"connect", "queries"});
        if (entry.contains("connect")) ExpectHresult(entry["connect"], ns / "connect");
        if (!entry.contains("queries")) continue;
        ExpectObject(entry["queries"], ns / "queries");
        for (const auto& [query, answer] : entry["queries"].items()) {
            const At q = ns / "queries" / query;
            ExpectObject(answer, q);
            ExpectOnly(answer, q, {"rows", "error", "then"});
            if (answer.contains("error")) ExpectHresult(answer["error"], q / "error");
            if (answer.contains("then")) ExpectHresult(answer["then"], q / "then");
            if (!answer.contains("rows")) continue;
            ExpectArray(answer["rows"], q / "rows");
            for (size_t i = 0; i < answer["rows"].size(); ++i) {
                ExpectObject(answer["rows"][i], q / "rows" / i);
                for (const auto& [property, value] : answer["rows"][i].items())
                    ValidateValue(value, q / "rows" / i / property);
            }
        }
    }
}

// ------------------------------------------------------------ the objects

// One run of a query: what it fetched and read, written to the trace once
// the enumerator and every row are gone.
struct QueryRun {
    std::wstring nameSpace;
    std::wstring query;
    std::string detail;  // language and flags
    size_t rows = 0;
    HRESULT fetchError = S_OK;      // fetching the next row failed with this
    std::vector<std::string> gaps;  // "Caption missing", "ExtClock null", once per row

    ~QueryRun() {
        if (rows == SIZE_MAX) return;  // a failed query, noted when it failed
        std::string outcome = rows == 0 ? "no rows" : std::to_string(rows) + (rows == 1 ? " row" : " rows");
        if (FAILED(fetchError))
            outcome = (rows == 0 ? "" : outcome + ", then ") + "fetching failed with " + HresultText(fetchError);
        std::map<std::string, size_t> counted;
        for (const std::string& gap : gaps) ++counted[gap];
        for (const auto& [gap, times] : counted)
            outcome += "; " + gap + (times > 1 ? " in " + std::to_string(times) + " rows" : std::string());
        Note("wmi", Utf8(nameSpace) + " \"" + Utf8(query) + "\"", outcome, rows == 0 || !gaps.empty() || FAILED(fetchError),
             detail);
    }

    Json* RecordedRows() {
        Json* answer = KeepNode({"wmi", Utf8(nameSpace), "queries"});
        if (answer == nullptr) return nullptr;
        Json& entry = (*answer)[Utf8(query)];
        if (!entry.is_object() || !entry.contains("rows")) entry = Json{{"rows", Json::array()}};
        return &entry["rows"];
    }
};

class SimRow : public ClassObjectBase {
public:
    SimRow(std::shared_ptr<QueryRun> run, size_t index, IWbemClassObject* real, Json replayed)
        : run_(std::move(run)), index_(index), real_(real), replayed_(std::move(replayed)) {}

    HRESULT STDMETHODCALLTYPE Get(LPCWSTR name, LONG flags, VARIANT* value, CIMTYPE* type, LONG* flavor) override {
        if (name == nullptr || value == nullptr) return WBEM_E_INVALID_PARAMETER;
        Lock lock(Active().mutex);
        const std::string property = Utf8(name);
        Json answer;
        if (real_ != nullptr) {
            VARIANT live;
            VariantInit(&live);
            const HRESULT hr = real_->Get(name, flags, &live, type, flavor);
            if (FAILED(hr)) return Gap(property + " missing", hr);
            bool supported = true;
            answer = EncodeVariant(live, supported);
            VariantClear(&live);
            if (!supported) run_->gaps.push_back(property + " of an unsupported type");
        } else {
            const Json* found = Child(&replayed_, property);
            if (found == nullptr) return Gap(property + " missing", WBEM_E_NOT_FOUND);
            answer = *found;
            if (type != nullptr) *type = 0;
            if (flavor != nullptr) *flavor = 0;
        }
        if (Json* rows = run_->RecordedRows()) {
            while (rows->size() <= index_) rows->push_back(Json::object());
            (*rows)[index_][property] = answer;
        }
        if (answer.is_null()) run_->gaps.push_back(property + " null");
        DecodeVariant(answer, value);
        return WBEM_S_NO_ERROR;
    }

private:
    HRESULT Gap(const std::string& gap, HRESULT hr) {
        run_->gaps.push_back(gap);
        return hr;
    }

    std::shared_ptr<QueryRun> run_;
    size_t index_;
    ComPtr<IWbemClassObject> real_;
    Json replayed_;
};

class SimEnumerator : public ComObject<IEnumWbemClassObject> {
public:
    SimEnumerator(std::shared_ptr<QueryRun> run, IEnumWbemClassObject* real, Json replayed)
        : run_(std::move(run)), real_(real), replayed_(std::move(replayed)) {}

    HRESULT STDMETHODCALLTYPE Next(LONG timeout, ULONG count, IWbemClassObject** objects, ULONG* returned) override {
        if (objects == nullptr || returned == nullptr || count == 0) return WBEM_E_INVALID_PARAMETER;
        Lock lock(Active().mutex);
        *returned = 0;
        objects[0] = nullptr;
        const size_t index = run_->rows;
        if (real_ != nullptr) {
            IWbemClassObject* row = nullptr;
            ULONG fetched = 0;
            const HRESULT hr = real_->Next(timeout, 1, &row, &fetched);
            Json* rows = run_->RecordedRows();
            if (fetched == 0 || row == nullptr) {
                if (row != nullptr) row->Release();
                if (FAILED(hr)) run_->fetchError = hr;
                if (rows != nullptr) {
                    rows->erase(rows->begin() + static_cast<std::ptrdiff_t>(std::min(index, rows->size())), rows->end());
                    if (FAILED(hr)) (*KeepNode({"wmi", Utf8(run_->nameSpace), "queries", Utf8(run_->query)}))["then"] =
                        HresultText(hr);
                }
                return hr;
            }
            if (rows != nullptr)
                while (rows->size() <= index) rows->push_back(Json::object());
            objects[0] = new SimRow(run_, index, row, nullptr);
        } else {
            const Json* rows = Child(&replayed_, "rows");
            if (rows == nullptr || index >= rows->size()) {
                const Json* then = Child(&replayed_, "then");
                if (then != nullptr) {
                    run_->fetchError = ParseHresult(then->get<std::string>());
                    if (Json* answer = KeepNode({"wmi", Utf8(run_->nameSpace), "queries", Utf8(run_->query)})) {
                        run_->RecordedRows();
                        (*answer)["then"] = *then;
                    }
                    return ParseHresult(then->get<std::string>());
                }
                run_->RecordedRows();
                return WBEM_S_FALSE;
            }
            if (Json* recorded = run_->RecordedRows())
                while (recorded->size() <= index) recorded->push_back(Json::object());
            objects[0] = new SimRow(run_, index, nullptr, (*rows)[index]);
        }
        ++run_->rows;
        *returned = 1;
        return WBEM_S_NO_ERROR;
    }
    HRESULT STDMETHODCALLTYPE Reset() override { return WBEM_E_NOT_SUPPORTED; }
    HRESULT STDMETHODCALLTYPE NextAsync(ULONG, IWbemObjectSink*) override { return WBEM_E_NOT_SUPPORTED; }
    HRESULT STDMETHODCALLTYPE Clone(IEnumWbemClassObject**) override { return WBEM_E_NOT_SUPPORTED; }
    HRESULT STDMETHODCALLTYPE Skip(LONG, ULONG) override { return WBEM_E_NOT_SUPPORTED; }

private:
    std::shared_ptr<QueryRun> run_;
    ComPtr<IEnumWbemClassObject> real_;
    Json replayed_;
};

class SimServices : public ServicesBase {
public:
    SimServices(std::wstring nameSpace, IWbemServices* real) : nameSpace_(std::move(nameSpace)), real_(real) {}

    HRESULT STDMETHODCALLTYPE SetBlanket(IUnknown*, DWORD authn, DWORD authz, OLECHAR* server, DWORD level,
                                         DWORD impersonation, void* identity, DWORD capabilities) override {
        if (real_ == nullptr) return S_OK;
        return CoSetProxyBlanket(real_.get(), authn, authz, server, level, impersonation, identity, capabilities);
    }

    HRESULT STDMETHODCALLTYPE ExecQuery(const BSTR language, const BSTR query, LONG flags, IWbemContext* context,
                                        IEnumWbemClassObject** result) override {
        if (result == nullptr) return WBEM_E_INVALID_PARAMETER;
        *result = nullptr;
        Lock lock(Active().mutex);
        auto run = std::make_shared<QueryRun>();
        run->nameSpace = nameSpace_;
        run->query = query != nullptr ? query : L"";
        run->detail = Utf8(language) + ", flags " + std::to_string(flags);
        const std::string ns = Utf8(nameSpace_), text = Utf8(run->query);
        const std::string call = ns + " \"" + text + "\"";
        if (real_ != nullptr) {
            IEnumWbemClassObject* rows = nullptr;
            const HRESULT hr = real_->ExecQuery(language, query, flags, context, &rows);
            if (FAILED(hr) || rows == nullptr) {
                if (rows != nullptr) rows->Release();
                Keep({"wmi", ns, "queries", text}, Json{{"error", HresultText(hr)}});
                run->rows = SIZE_MAX;  // noted here, not as "no rows"
                Note("wmi", call, "error " + HresultText(hr), true);
                return FAILED(hr) ? hr : static_cast<HRESULT>(WBEM_E_FAILED);
            }
            *result = new SimEnumerator(run, rows, nullptr);
            return hr;
        }
        const Json* queries = Replayed({"wmi", ns, "queries"});
        auto answer = queries != nullptr ? queries->find(text) : Json::const_iterator();
        if (queries == nullptr || answer == queries->end()) {
            Note("wmi", call, "not in the profile", true, run->detail);
            run->rows = SIZE_MAX;
            return kNoClass;
        }
        if (answer->contains("error")) {
            Keep({"wmi", ns, "queries", text}, Json{{"error", (*answer)["error"]}});
            Note("wmi", call, "error " + (*answer)["error"].get<std::string>(), true, run->detail);
            run->rows = SIZE_MAX;
            return ParseHresult((*answer)["error"].get<std::string>());
        }
        *result = new SimEnumerator(run, nullptr, *answer);
        return WBEM_S_NO_ERROR;
    }

    HRESULT STDMETHODCALLTYPE GetObject(const BSTR path, LONG, IWbemContext*, IWbemClassObject** object,
                                        IWbemCallResult**) override {
        return FirmwareGetObject(real_.get(), nameSpace_, path, object);
    }

    HRESULT STDMETHODCALLTYPE ExecMethod(const BSTR path, const BSTR method, LONG, IWbemContext*,
                                         IWbemClassObject* input, IWbemClassObject** output,
                                         IWbemCallResult**) override {
        return FirmwareExecMethod(real_.get(), nameSpace_, path, method, input, output);
    }

private:
    std::wstring nameSpace_;
    ComPtr<IWbemServices> real_;
};

class SimLocator : public ComObject<IWbemLocator> {
public:
    explicit SimLocator(IWbemLocator* real) : real_(real) {}

    HRESULT STDMETHODCALLTYPE ConnectServer(const BSTR path, const BSTR user, const BSTR password, const BSTR locale,
                                            LONG flags, const BSTR authority, IWbemContext* context,
                                            IWbemServices** services) override {
        if (services == nullptr) return WBEM_E_INVALID_PARAMETER;
        *services = nullptr;
        Lock lock(Active().mutex);
        const std::wstring nameSpace = path != nullptr ? path : L"";
        const std::string ns = Utf8(nameSpace);
        HRESULT hr = WBEM_S_NO_ERROR;
        IWbemServices* real = nullptr;
        if (real_ != nullptr) {
            hr = real_->ConnectServer(path, user, password, locale, flags, authority, context, &real);
            if (FAILED(hr) || real == nullptr) {
                if (real != nullptr) real->Release();
                real = nullptr;
                if (SUCCEEDED(hr)) hr = WBEM_E_FAILED;
                Keep({"wmi", ns, "connect"}, HresultText(hr));
            } else if (Json* entry = KeepObject({"wmi", ns})) {
                entry->erase("connect");
            }
        } else {
            const Json* entry = Replayed({"wmi", ns});
            if (entry == nullptr) hr = kNoNamespace;
            else if (const Json* failure = Child(entry, "connect")) hr = ParseHresult(failure->get<std::string>());
            if (entry != nullptr) {
                if (Json* kept = KeepNode({"wmi", ns})) {
                    if (kept->is_null()) *kept = Json::object();
                    if (FAILED(hr)) (*kept)["connect"] = HresultText(hr);
                }
            }
        }
        if (FAILED(hr)) {
            Note("wmi", "connect " + ns, entry_text(hr), true);
            return hr;
        }
        if (Json* kept = KeepNode({"wmi", ns})) {
            if (!kept->is_object()) *kept = Json::object();
        }
        *services = new SimServices(nameSpace, real);
        return WBEM_S_NO_ERROR;
    }

private:
    static std::string entry_text(HRESULT hr) {
        return hr == kNoNamespace ? "no such namespace (" + HresultText(hr) + ")" : "error " + HresultText(hr);
    }
    ComPtr<IWbemLocator> real_;
};

void Install(Installer&) {}  // reached through CoCreateInstance

}  // namespace

HRESULT CreateWmiLocator(REFIID iid, void** out, HRESULT (*real)(REFCLSID, LPUNKNOWN, DWORD, REFIID, LPVOID*)) {
    if (out == nullptr) return E_POINTER;
    *out = nullptr;
    IWbemLocator* live = nullptr;
    if (Active().live()) {
        const HRESULT hr = real(CLSID_WbemLocator, nullptr, CLSCTX_INPROC_SERVER, IID_IWbemLocator,
                                reinterpret_cast<void**>(&live));
        if (FAILED(hr)) {
            Note("com", "WbemLocator", "not created (" + HresultText(hr) + ")", true);
            return hr;
        }
    }
    auto* locator = new SimLocator(live);
    const HRESULT hr = locator->QueryInterface(iid, out);
    locator->Release();
    return hr;
}

const SourceDef kWmiSource = {"wmi", Validate, Install, nullptr};

}  // namespace torvex::sim::detail
