// A scripted WMI for tests: a locator registered as the WbemLocator COM class
// in the test process, answering exact query texts from a table of rows, with
// injectable failures, the OEM firmware method, and reference counting.
//
//   FakeWmi wmi;
//   wmi.On(L"ROOT\\CIMV2", L"SELECT Name FROM Win32_Processor", {{{L"Name", WmiValue::Str(L"Intel(R) X")}}});
//   ... call the library ...
//   EXPECT_EQ(wmi.LiveObjects(), 0);
#pragma once

#include <windows.h>
#include <oleauto.h>
#include <wbemcli.h>

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace torvex::test {

// One property value as the fake hands it out in a VARIANT.
class WmiValue {
public:
    static WmiValue Str(const std::wstring& text);           // VT_BSTR
    static WmiValue U32(uint32_t value);                      // VT_I4 holding the bits (WMI's uint32 form)
    static WmiValue I32(int32_t value);                       // VT_I4
    static WmiValue I64(int64_t value);                       // VT_I8
    static WmiValue Bool(bool value);                         // VT_BOOL, VARIANT_TRUE or VARIANT_FALSE
    static WmiValue BoolBits(uint16_t bits);                  // VT_BOOL with raw bits (e.g. 1)
    static WmiValue Bytes(const std::vector<uint8_t>& bytes); // VT_ARRAY | VT_UI1
    static WmiValue NullValue();                              // VT_NULL
    static WmiValue FromVariant(const VARIANT& value);        // any VARIANT, copied

    // Fills an empty VARIANT with a fresh copy of the value.
    void ToVariant(VARIANT* out) const;

private:
    std::shared_ptr<VARIANT> value_;
};

// Property name -> value. WMI matches property names without regard to case,
// and so does the fake. A property absent from the row makes Get fail with
// WBEM_E_NOT_FOUND.
struct WmiNameLess {
    bool operator()(const std::wstring& a, const std::wstring& b) const;
};
using WmiRow = std::map<std::wstring, WmiValue, WmiNameLess>;

class FakeWmi {
public:
    FakeWmi();   // registers the locator class in this process
    ~FakeWmi();  // revokes it
    FakeWmi(const FakeWmi&) = delete;
    FakeWmi& operator=(const FakeWmi&) = delete;

    // Rows for an exact query text in a namespace (namespace compared without
    // regard to case). A query that was not scripted answers no rows.
    void On(const std::wstring& nameSpace, const std::wstring& query, std::vector<WmiRow> rows);

    // Failure injection.
    void FailConnect(const std::wstring& nameSpace, HRESULT error = static_cast<HRESULT>(0x8004100E));
    void FailQuery(const std::wstring& query, HRESULT error = static_cast<HRESULT>(0x80041017));
    void FailFetchAfter(const std::wstring& query, size_t rows);  // Next fails once that many rows were given
    void FailGet(const std::wstring& property);                   // Get of the property fails on every row
    void FailCreate(bool fail = true);                            // the locator's CreateInstance fails

    // The OEM firmware method "OemWMIfun" of class "OemWMIMethod" in ROOT\WMI.
    // The firmware takes its packet either as "u64Input" (decimal text of the
    // command word) or as "u8Input" (64-byte array); the handler gets the
    // packet in both cases (for U64 the word in bytes 0-7, zeros after) and
    // returns the "u8Output" bytes.
    enum class FirmwareInput { U64, U8Array };
    using FirmwareHandler = std::function<std::vector<uint8_t>(const std::vector<uint8_t>& packet)>;
    void SetFirmware(FirmwareInput input, FirmwareHandler handler);
    void FailMethod(HRESULT error);  // ExecMethod fails

    struct MethodCall {
        std::wstring nameSpace;
        std::wstring objectPath;
        std::wstring method;
        std::optional<std::wstring> u64Input;        // text put as "u64Input"
        std::optional<CIMTYPE> u64CimType;           // the CIM type given with it
        std::optional<std::vector<uint8_t>> u8Input;  // array put as "u8Input"
    };
    std::vector<MethodCall> MethodCalls() const;

    // What the library asked for, in order.
    struct Query {
        std::wstring nameSpace;
        std::wstring language;
        std::wstring text;
        long flags;
    };
    std::vector<Query> Queries() const;
    std::vector<std::wstring> Connections() const;  // namespaces passed to ConnectServer
    std::vector<std::wstring> PropertyReads() const; // property names passed to Get, in order

    // Fake WMI objects still referenced (locator, services, enumerators, rows,
    // class objects, parameter objects). 0 after a call that released everything.
    long LiveObjects() const;

    void Reset();  // forget scripted rows, failures and the call logs

    struct State;  // shared with the fake objects

private:
    std::shared_ptr<State> state_;
    DWORD cookie_ = 0;
};

}  // namespace torvex::test
