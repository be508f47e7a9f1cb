#include "profile.h"

#include <windows.h>

#include <algorithm>
#include <cstdio>
#include <memory>

#include "source.h"

namespace torvex::sim {
namespace {

constexpr size_t kMaxProfileBytes = 64u << 20;
constexpr int kMaxDepth = 24;  // the deepest real shape is a WMI array value in a row

const detail::SourceDef* const kSources[] = {
    &detail::kWmiSource,    &detail::kFirmwareSource, &detail::kRegistrySource, &detail::kDeviceSource,
    &detail::kPowerSource,  &detail::kFileSource,     &detail::kWlanSource,     &detail::kAudioSource,
    &detail::kDisplaySource, &detail::kDxgiSource,    &detail::kVendorSource,
};

void ValidateMachine(const Json& value, const At& at) {
    ExpectObject(value, at);
    ExpectOnly(value, at, {"description", "captured_by", "redacted"});
    if (value.contains("description")) ExpectString(value["description"], at / "description");
    if (value.contains("captured_by")) ExpectString(value["captured_by"], at / "captured_by");
    if (value.contains("redacted")) ExpectBool(value["redacted"], at / "redacted");
}

void Validate(const Json& doc) {
    const At root;
    ExpectObject(doc, root);
    if (!doc.contains("schema")) Expected(root / "schema", std::string("the member \"schema\": \"") + kProfileSchema + "\"");
    if (!doc["schema"].is_string() || doc["schema"].get<std::string>() != kProfileSchema)
        Expected(root / "schema", std::string("\"") + kProfileSchema + "\" (or \"" + kProfileSchemaVersion1 + "\")");
    for (const auto& [key, value] : doc.items()) {
        if (key == "schema") continue;
        if (key == "machine") {
            ValidateMachine(value, root / key);
            continue;
        }
        bool known = false;
        for (const detail::SourceDef* source : kSources) {
            if (key != source->member) continue;
            known = true;
            source->validate(value, root / key);
        }
        if (!known) Expected(root / key, "no such member: a profile holds schema, machine and the sources");
    }
}

// "[json.exception.parse_error.101] parse error at line 3, column 5: syntax error ..." -> "line 3, column 5: syntax error ..."
std::string ParseMessage(const std::string& what) {
    const size_t at = what.find("line ");
    return at == std::string::npos ? what : what.substr(at);
}

// "line 3, column 5" of the character at `index` (both counted from 1).
std::string Place(const std::string& text, size_t index) {
    index = std::min(index, text.size());
    size_t line = 1, lineStart = 0;
    for (size_t i = 0; i < index; ++i)
        if (text[i] == '\n') ++line, lineStart = i + 1;
    return "line " + std::to_string(line) + ", column " + std::to_string(index - lineStart + 1);
}

// Builds the document in one pass over the text and refuses on the way what
// the plain parse would accept or report badly: nesting beyond the limit, a
// member name given twice or holding control characters, a number no double
// holds. Each refusal names the place, as a line and column or as the JSON
// pointer of the member.
class Builder : public nlohmann::json_sax<Json> {
public:
    Builder(const std::string& text, Json& root) : text_(text), root_(root) {}

    bool null() override { return Value(nullptr); }
    bool boolean(bool value) override { return Value(value); }
    bool number_integer(number_integer_t value) override { return Value(value); }
    bool number_unsigned(number_unsigned_t value) override { return Value(value); }
    bool number_float(number_float_t value, const string_t&) override { return Value(value); }
    bool string(string_t& value) override { return Value(std::move(value)); }
    bool binary(binary_t&) override { return Value(nullptr); }  // JSON text holds none

    bool start_object(std::size_t) override { return Open(Json::object()); }
    bool start_array(std::size_t) override { return Open(Json::array()); }
    bool end_object() override { return Close(); }
    bool end_array() override { return Close(); }

    bool key(string_t& name) override {
        const At here = Here();
        for (unsigned char c : name)
            if (c < 0x20 || c == 0x7F)
                throw ProfileError("at " + Pointer(here / name) + ": expected a member name without control characters");
        if (open_.back()->contains(name))
            throw ProfileError("at " + Pointer(here / name) + ": expected each member name once in an object, not twice");
        key_ = std::move(name);
        return true;
    }

    bool parse_error(std::size_t offset, const std::string& token, const nlohmann::detail::exception& e) override {
        if (dynamic_cast<const Json::parse_error*>(&e) != nullptr)
            throw ProfileError(ParseMessage(e.what()) + " (expected a JSON document)");
        // The one other refusal of the parser: a number beyond what a double holds (1e400).
        // `offset` is just past the number: the message points at its start.
        throw ProfileError(Place(text_, offset - std::min(offset, token.size())) + ": the number " + token +
                           " is out of range (expected a number between -1.7e308 and 1.7e308)");
    }

private:
    static std::string Pointer(const At& at) { return at.pointer().empty() ? "/" : at.pointer(); }

    // Where the next value goes, as a JSON pointer (for messages only).
    At Here() const {
        At at;
        for (size_t i = 1; i < open_.size(); ++i) at = at / path_[i - 1];
        return at;
    }

    Json* Put(Json&& value) {
        if (open_.empty()) {
            root_ = std::move(value);
            return &root_;
        }
        Json& parent = *open_.back();
        if (parent.is_array()) {
            parent.push_back(std::move(value));
            return &parent.back();
        }
        Json& slot = parent[key_];
        slot = std::move(value);
        return &slot;
    }

    bool Value(Json&& value) {
        Put(std::move(value));
        return true;
    }

    bool Open(Json&& container) {
        if (open_.size() >= static_cast<size_t>(kMaxDepth))
            throw ProfileError("nested deeper than " + std::to_string(kMaxDepth) + " levels (expected a profile)");
        // The member (or index) the new container fills, kept for messages.
        if (!open_.empty()) path_.push_back(open_.back()->is_array() ? std::to_string(open_.back()->size()) : key_);
        open_.push_back(Put(std::move(container)));
        return true;
    }

    bool Close() {
        open_.pop_back();
        if (!path_.empty() && path_.size() >= open_.size()) path_.pop_back();
        return true;
    }

    const std::string& text_;
    Json& root_;
    std::vector<Json*> open_;        // the containers being filled, outermost first
    std::vector<std::string> path_;  // the member or index of each open container but the outermost
    std::string key_;
};

}  // namespace

const detail::SourceDef* const* SourceTable(size_t& count) {
    count = sizeof(kSources) / sizeof(kSources[0]);
    return kSources;
}

Profile::Profile() : doc_(Json::object({{"schema", kProfileSchema}})) {}

Profile Profile::Parse(const std::string& text, const std::string& name) {
    if (text.size() > kMaxProfileBytes)
        throw ProfileError(name + ": larger than " + std::to_string(kMaxProfileBytes >> 20) + " MiB, not a profile");
    Profile profile;
    try {
        Builder builder(text, profile.doc_);
        Json::sax_parse(text, &builder);
    } catch (const ProfileError& e) {
        throw ProfileError(name + ": " + e.what());
    }
    try {
        if (profile.doc_.is_object() && profile.doc_.value("schema", Json()) == kProfileSchemaVersion1)
            detail::UpgradeFromVersion1(profile.doc_);
        Validate(profile.doc_);
    } catch (const ProfileError& e) {
        throw ProfileError(name + ": " + e.what());
    } catch (const Json::exception& e) {
        throw ProfileError(name + ": " + e.what());
    }
    return profile;
}

Profile Profile::Load(const std::wstring& path) {
    const std::string name = detail::Utf8(path);
    std::unique_ptr<FILE, int (*)(FILE*)> file(_wfopen(path.c_str(), L"rb"), &fclose);
    if (!file) throw ProfileError(name + ": cannot be opened (expected a profile file)");
    std::string text;
    char buffer[65536];
    size_t read = 0;
    while ((read = fread(buffer, 1, sizeof(buffer), file.get())) > 0) {
        text.append(buffer, read);
        if (text.size() > kMaxProfileBytes)
            throw ProfileError(name + ": larger than " + std::to_string(kMaxProfileBytes >> 20) + " MiB, not a profile");
    }
    return Parse(text, name);
}

std::string Profile::Dump() const { return doc_.dump(2, ' ', false, Json::error_handler_t::replace) + "\n"; }

void Profile::Save(const std::wstring& path) const {
    const std::string text = Dump();
    std::unique_ptr<FILE, int (*)(FILE*)> file(_wfopen(path.c_str(), L"wb"), &fclose);
    if (!file || fwrite(text.data(), 1, text.size(), file.get()) != text.size())
        throw ProfileError(detail::Utf8(path) + ": cannot be written");
}

// ------------------------------------------------------------- validation

namespace {
// A member name as a pointer step; control characters are shown escaped, so
// that a message stays one line and never drives the terminal.
std::string Escape(const std::string& key) {
    std::string out;
    for (char c : key) {
        const auto byte = static_cast<unsigned char>(c);
        if (c == '~') {
            out += "~0";
        } else if (c == '/') {
            out += "~1";
        } else if (byte < 0x20 || byte == 0x7F) {
            char escaped[8];
            std::snprintf(escaped, sizeof(escaped), "\\u%04X", byte);
            out += escaped;
        } else {
            out += c;
        }
    }
    return out;
}
}  // namespace

At At::operator/(const std::string& key) const {
    At next;
    next.pointer_ = pointer_ + "/" + Escape(key);
    return next;
}

At At::operator/(size_t index) const { return *this / std::to_string(index); }

void Expected(const At& at, const std::string& what) {
    throw ProfileError("at " + (at.pointer().empty() ? std::string("/") : at.pointer()) + ": expected " + what);
}

void ExpectObject(const Json& value, const At& at) {
    if (!value.is_object()) Expected(at, "an object");
}

void ExpectArray(const Json& value, const At& at) {
    if (!value.is_array()) Expected(at, "an array");
}

void ExpectString(const Json& value, const At& at) {
    if (!value.is_string()) Expected(at, "a string");
}

void ExpectBool(const Json& value, const At& at) {
    if (!value.is_boolean()) Expected(at, "true or false");
}

void ExpectInteger(const Json& value, const At& at, long long low, long long high) {
    const std::string range = "an integer from " + std::to_string(low) + " to " + std::to_string(high);
    if (value.is_number_unsigned()) {
        if (high < 0 || value.get<unsigned long long>() > static_cast<unsigned long long>(high)) Expected(at, range);
        if (low > 0 && value.get<unsigned long long>() < static_cast<unsigned long long>(low)) Expected(at, range);
        return;
    }
    if (!value.is_number_integer() || value.get<long long>() < low || value.get<long long>() > high) Expected(at, range);
}

void ExpectUnsigned(const Json& value, const At& at, unsigned long long high) {
    if (!value.is_number_unsigned() || value.get<unsigned long long>() > high)
        Expected(at, "an integer from 0 to " + std::to_string(high));
}

void ExpectHex(const Json& value, const At& at, size_t maxBytes) {
    std::vector<uint8_t> bytes;
    if (!value.is_string() || !detail::ParseHex(value.get<std::string>(), bytes))
        Expected(at, "hexadecimal bytes such as \"00a1ff\"");
    if (bytes.size() > maxBytes) Expected(at, "at most " + std::to_string(maxBytes) + " bytes");
}

void ExpectGuid(const Json& value, const At& at) {
    GUID guid;
    if (!value.is_string() || !detail::ParseGuid(value.get<std::string>(), guid))
        Expected(at, "a GUID such as \"{4D36E96C-E325-11CE-BFC1-08002BE10318}\"");
}

void ExpectHresult(const Json& value, const At& at) {
    const std::string text = value.is_string() ? value.get<std::string>() : std::string();
    bool ok = text.size() == 10 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X');
    for (size_t i = 2; ok && i < text.size(); ++i) ok = std::isxdigit(static_cast<unsigned char>(text[i])) != 0;
    if (!ok) Expected(at, "an HRESULT such as \"0x80041010\"");
}

void ExpectError(const Json& value, const At& at) {
    try {
        ExpectHresult(value, at);
    } catch (const ProfileError&) {
        Expected(at, "an error code such as \"0x00000002\"");
    }
}

void ExpectOnly(const Json& object, const At& at, std::initializer_list<const char*> allowed) {
    for (const auto& [key, value] : object.items()) {
        bool ok = false;
        for (const char* name : allowed) ok = ok || key == name;
        if (!ok) {
            std::string list;
            for (const char* name : allowed) list += (list.empty() ? "" : ", ") + std::string(name);
            Expected(at / key, "no such member (allowed: " + list + ")");
        }
    }
}

}  // namespace torvex::sim
