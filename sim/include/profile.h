// A machine profile ("torvex-machine/2"): every answer the operating system
// gave Torvex.dll on one machine, keyed by the call as the library makes it.
// The document is plain JSON; docs/machine-profile.md describes it.
#pragma once

#include <nlohmann/json.hpp>

#include <stdexcept>
#include <string>
#include <vector>

namespace torvex::sim {

// Sorted keys: a profile written twice from the same answers is the same file.
using Json = nlohmann::json;

constexpr char kProfileSchema[] = "torvex-machine/2";
// Still read: brought to the current form as it loads.
constexpr char kProfileSchemaVersion1[] = "torvex-machine/1";

// A profile that cannot be used. The message is one line naming the file,
// the place (line and column, or the JSON pointer) and what was expected.
class ProfileError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

class Profile {
public:
    Profile();  // answers nothing: every source is absent

    // Checks the whole document before anything uses it; throws ProfileError.
    static Profile Parse(const std::string& text, const std::string& name = "profile");
    static Profile Load(const std::wstring& path);

    // Sorted keys, two-space indent, a final newline.
    std::string Dump() const;
    void Save(const std::wstring& path) const;  // throws ProfileError when it cannot write

    Json& doc() { return doc_; }
    const Json& doc() const { return doc_; }

private:
    Json doc_;
};

// One row of the redaction policy: a kind of identifying value and a place
// where a machine hands it to the library.
struct RedactionPlace {
    const char* kind;    // "serial number", "device instance ID", ...
    const char* place;   // JSON pointer pattern: "*" any member or index, "*serial*" any name holding "serial"
    const char* target;  // "value", "member names" or "every text"
    const char* how;     // "whole value", "unique part", "keyed GUID", ...
    const char* note;
};
std::vector<RedactionPlace> RedactionPolicy();

// Replaces every identifying value the policy names with a placeholder keyed
// by a secret drawn for this call and never kept: "REDACTED-" and 16
// uppercase hex digits for texts and tokens in them, a keyed value of the
// same shape for hex bytes, GUIDs and numbers. The same value gives the same
// placeholder throughout the profile, so it stays consistent and replays.
// Returns how many values each row of RedactionPolicy() replaced; throws
// ProfileError when the system gives no random key.
std::vector<size_t> Redact(Profile& profile);

// A place in a profile, as a JSON pointer, for messages.
class At {
public:
    At() = default;
    At operator/(const std::string& key) const;
    At operator/(size_t index) const;
    const std::string& pointer() const { return pointer_; }

private:
    std::string pointer_;
};

// Validation helpers for the sources: each throws ProfileError("POINTER:
// expected WHAT") when the value does not fit.
[[noreturn]] void Expected(const At& at, const std::string& what);
void ExpectObject(const Json& value, const At& at);
void ExpectArray(const Json& value, const At& at);
void ExpectString(const Json& value, const At& at);
void ExpectBool(const Json& value, const At& at);
// An integer within [low, high].
void ExpectInteger(const Json& value, const At& at, long long low, long long high);
void ExpectUnsigned(const Json& value, const At& at, unsigned long long high = UINT64_MAX);
// Text of hexadecimal byte pairs ("00a1ff"); at most `maxBytes` bytes.
void ExpectHex(const Json& value, const At& at, size_t maxBytes = SIZE_MAX);
// "{XXXXXXXX-XXXX-XXXX-XXXX-XXXXXXXXXXXX}"
void ExpectGuid(const Json& value, const At& at);
// "0x" and eight hexadecimal digits (an HRESULT).
void ExpectHresult(const Json& value, const At& at);
// An error code in the same form, whatever its kind: a Win32 error, a
// configuration-manager result, an NTSTATUS ("0x00000002").
void ExpectError(const Json& value, const At& at);
// Every member of an object is one of `allowed`.
void ExpectOnly(const Json& object, const At& at, std::initializer_list<const char*> allowed);

}  // namespace torvex::sim
