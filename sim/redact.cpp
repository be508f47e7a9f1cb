// Redaction of a profile before it leaves the machine. What is hidden is a
// policy: one table of the kinds of identifying values and the places a
// machine hands them to the library (docs/machine-profile.md carries the same
// table). A value is replaced whole, or as a recognised token inside it (an
// instance ID's unique part, a Bluetooth address), never as a substring of
// an unrelated text.
//
// Placeholders are keyed: HMAC-SHA-256 under a secret drawn at random for
// each redaction and never written. The same value gives the same
// placeholder within one profile, so the profile stays consistent and
// replays; nobody can compute a placeholder from a guessed value, so none
// can be turned back into what it replaced.
#include <windows.h>
#include <bcrypt.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cstdio>
#include <cstring>
#include <map>
#include <memory>
#include <set>

#include "profile.h"
#include "source.h"

namespace torvex::sim {
namespace {

using detail::Lower;
using Path = std::vector<std::string>;

constexpr char kPlaceholder[] = "REDACTED-";
constexpr size_t kPlaceholderDigits = 16;  // 64 keyed bits

std::string Upper(std::string text) {
    for (char& c : text)
        if (c >= 'a' && c <= 'z') c = static_cast<char>(c - 'a' + 'A');
    return text;
}

bool StartsWith(const std::string& text, const std::string& prefix) { return text.compare(0, prefix.size(), prefix) == 0; }

bool IsHexDigits(const std::string& text) {
    return !text.empty() && std::all_of(text.begin(), text.end(), [](char c) { return std::isxdigit(static_cast<unsigned char>(c)) != 0; });
}

bool IsPlaceholder(const std::string& text) { return StartsWith(text, kPlaceholder); }

// ---------------------------------------------------------------- the key

struct CloseAlgorithm {
    void operator()(void* handle) const { BCryptCloseAlgorithmProvider(handle, 0); }
};
using AlgorithmHandle = std::unique_ptr<void, CloseAlgorithm>;
struct DestroyHash {
    void operator()(void* handle) const { BCryptDestroyHash(handle); }
};
using HashHandle = std::unique_ptr<void, DestroyHash>;

using Digest = std::array<uint8_t, 32>;

// HMAC-SHA-256 under a secret of 32 random bytes that lives only as long as
// this object.
class KeyedHash {
public:
    KeyedHash() {
        BCRYPT_ALG_HANDLE algorithm = nullptr;
        if (!BCRYPT_SUCCESS(BCryptGenRandom(nullptr, secret_.data(), static_cast<ULONG>(secret_.size()),
                                            BCRYPT_USE_SYSTEM_PREFERRED_RNG)) ||
            !BCRYPT_SUCCESS(BCryptOpenAlgorithmProvider(&algorithm, BCRYPT_SHA256_ALGORITHM, nullptr,
                                                        BCRYPT_ALG_HANDLE_HMAC_FLAG)))
            throw ProfileError("the system gave no random key for redaction; nothing was written");
        algorithm_.reset(algorithm);
    }
    ~KeyedHash() { SecureZeroMemory(secret_.data(), secret_.size()); }
    KeyedHash(const KeyedHash&) = delete;
    KeyedHash& operator=(const KeyedHash&) = delete;

    Digest operator()(const std::string& message) const {
        BCRYPT_HASH_HANDLE raw = nullptr;
        Digest digest{};
        if (!BCRYPT_SUCCESS(BCryptCreateHash(algorithm_.get(), &raw, nullptr, 0, const_cast<PUCHAR>(secret_.data()),
                                             static_cast<ULONG>(secret_.size()), 0)))
            throw ProfileError("the system refused a keyed hash for redaction; nothing was written");
        HashHandle hash(raw);
        if (!BCRYPT_SUCCESS(BCryptHashData(raw, reinterpret_cast<PUCHAR>(const_cast<char*>(message.data())),
                                           static_cast<ULONG>(message.size()), 0)) ||
            !BCRYPT_SUCCESS(BCryptFinishHash(raw, digest.data(), static_cast<ULONG>(digest.size()), 0)))
            throw ProfileError("the system refused a keyed hash for redaction; nothing was written");
        return digest;
    }

private:
    Digest secret_{};
    AlgorithmHandle algorithm_;
};

// ------------------------------------------------------- instance IDs

// Instance IDs hold three parts, "ENUMERATOR\DEVICE\UNIQUE": the last one is
// unique to the machine (a serial number, a Bluetooth address, a bus path).
struct InstanceId {
    std::vector<std::string> parts;
};

// Enumerators a text outside the places that hold instance IDs must start
// with to be taken for one.
const char* const kEnumerators[] = {"ACPI",   "ACPI_HAL", "BTH",   "BTHENUM", "BTHHFENUM", "BTHLE",   "BTHLEDEVICE",
                                    "BTHMODEM", "DISPLAY", "HDAUDIO", "HID",  "HTREE",     "INTELAUDIO", "MONITOR",
                                    "NVME",   "PCI",      "ROOT",  "SCSI",    "SD",        "STORAGE", "SW",
                                    "SWD",    "UEFI",     "UMB",   "USB",     "USBPRINT",  "USBSTOR", "WPDBUSENUMROOT"};

// Devices their owners plug in or pair, whose names are often the owner's
// own ("Alice's Watch"), by the start of their instance IDs.
const char* const kUserAttached[] = {"BTHENUM\\",  "BTHHFENUM\\", "BTHLE\\",       "BTHLEDEVICE\\", "BTHMODEM\\",
                                     "HID\\",      "USB\\",       "USBPRINT\\",    "USBSTOR\\",     "WPDBUSENUMROOT\\",
                                     "SWD\\MMDEVAPI\\", "SWD\\WPDBUSENUM\\"};

// An instance ID split at `separator` ('\' in IDs, '#' in device paths): at
// least three non-empty parts; `known` asks for a known enumerator and
// exactly three parts, for texts found where any text may stand.
bool ParseInstanceId(const std::string& text, char separator, bool known, InstanceId& id) {
    id.parts.clear();
    size_t from = 0;
    for (;;) {
        const size_t at = text.find(separator, from);
        id.parts.push_back(text.substr(from, at == std::string::npos ? std::string::npos : at - from));
        if (id.parts.back().empty() || (known && id.parts.back().find_first_of(" \t") != std::string::npos)) return false;
        if (at == std::string::npos) break;
        from = at + 1;
    }
    if (id.parts.size() < 3) return false;
    if (!known) return true;
    if (id.parts.size() != 3) return false;
    const std::string enumerator = Upper(id.parts[0]);
    return std::any_of(std::begin(kEnumerators), std::end(kEnumerators), [&](const char* e) { return enumerator == e; });
}

bool UserAttached(const std::string& instanceId) {
    const std::string id = Upper(instanceId);
    return std::any_of(std::begin(kUserAttached), std::end(kUserAttached), [&](const char* p) { return StartsWith(id, p); });
}

// ---------------------------------------------------------------- policy

enum class Target { Value, Names, Texts };
// How a value at a place is replaced:
//  Whole       the whole value; texts become placeholders, hex bytes, GUIDs and
//              numbers keyed values of the same shape
//  InstanceId  an instance ID's unique part and any Bluetooth address in it
//  AnyId       the same, for a text that is an instance ID (a known
//              enumerator, three parts) or a device path; in any other text,
//              the unique parts of the profile's instance IDs where they stand
//              as a path step ("...\\4C530001&0\"")
//  DevicePath  the instance ID inside a device interface path
//  EnumKey     the instance ID in a registry path below "...\Enum\"
//  Query       the literals a WQL text compares with the WMI properties above
//  Guid        a GUID, as a keyed GUID
//  Hex         hex bytes, as keyed bytes of the same length
//  GuidTokens  every GUID inside the text
//  Addresses   every "DEV_" and twelve hex digits (a Bluetooth address)
enum class Form { Whole, InstanceId, AnyId, DevicePath, EnumKey, Query, Guid, Hex, GuidTokens, Addresses };

class Redactor;
// Whether a place applies to this value (path and value as found).
using Condition = bool (*)(const Redactor&, const Path&, const Json&);

struct Row {
    const char* kind;
    const char* place;  // pointer pattern: "*" any member or index, "*text*" any name holding "text"
    Target target;
    Form form;
    Condition when;
    const char* note;
};

bool PersonalName(const Redactor&, const Path&, const Json&);
bool UserAttachedNode(const Redactor&, const Path& path, const Json&) { return path.size() > 2 && UserAttached(path[2]); }
bool UserAttachedKey(const Redactor&, const Path& path, const Json&);
bool BatteryIdentity(const Redactor&, const Path& path, const Json&);

constexpr char kWmiRow[] = "/wmi/*/queries/*/rows/*/";

// The kinds of identifying values.
constexpr char kSerial[] = "serial number";
constexpr char kUniqueId[] = "unique identifier";
constexpr char kAddress[] = "hardware address";
constexpr char kInstanceId[] = "device instance ID";
constexpr char kDeviceName[] = "device name";
constexpr char kInterfaceGuid[] = "interface GUID";
constexpr char kAdapterLuid[] = "adapter LUID";
constexpr char kVideoKey[] = "video key GUID";
constexpr char kCompared[] = "any of the WMI kinds above";

// The policy. Value rows take the first one that applies, in this order;
// "every text" rows apply to every text and member name beneath them that no
// value row took. Adding a place is one row.
const Row kPolicy[] = {
    {kSerial, "/wmi/*/queries/*/rows/*/*serial*", Target::Value, Form::Whole, nullptr,
     "any WMI property whose name holds `Serial`: disks, memory modules, board, BIOS, batteries"},
    {kSerial, "/wmi/*/queries/*/rows/*/IdentifyingNumber", Target::Value, Form::Whole, nullptr, "the machine's serial number"},
    {kSerial, "/wmi/*/queries/*/rows/*/UniqueID", Target::Value, Form::Whole, nullptr, "a battery's unique ID"},
    {kUniqueId, "/wmi/*/queries/*/rows/*/UUID", Target::Value, Form::Whole, nullptr, "the machine's UUID"},
    {kUniqueId, "/wmi/*/queries/*/rows/*/ProcessorId", Target::Value, Form::Whole, nullptr, "the processor ID"},
    {kAddress, "/wmi/*/queries/*/rows/*/*MACAddress*", Target::Value, Form::Whole, nullptr, "network adapters"},
    {kAddress, "/wmi/*/queries/*/rows/*/PermanentAddress", Target::Value, Form::Whole, nullptr, "network adapters"},
    {kInstanceId, "/wmi/*/queries/*/rows/*/DeviceID", Target::Value, Form::InstanceId, nullptr,
     "`Win32_PnPEntity` and others; a text that is no instance ID, such as `\\\\.\\PHYSICALDRIVE0`, stays"},
    {kInstanceId, "/wmi/*/queries/*/rows/*/PNPDeviceID", Target::Value, Form::InstanceId, nullptr, "monitors and others"},
    {kDeviceName, "/wmi/*/queries/*/rows/*/Caption", Target::Value, Form::Whole, PersonalName,
     "when it names a user-attached device"},
    {kDeviceName, "/wmi/*/queries/*/rows/*/Name", Target::Value, Form::Whole, PersonalName, "the same"},
    {kDeviceName, "/wmi/*/queries/*/rows/*/Description", Target::Value, Form::Whole, PersonalName, "the same"},
    {kInstanceId, "/wmi/*/queries/*/rows/*/*", Target::Value, Form::AnyId, nullptr,
     "any other WMI text that is an instance ID or a device path"},
    {kCompared, "/wmi/*/queries", Target::Names, Form::Query, nullptr,
     "query texts: a literal compared with a property above is replaced as that property's value"},
    {kSerial, "/registry/*/*serial*", Target::Value, Form::Whole, nullptr, "any registry value whose name holds `Serial`"},
    {kDeviceName, "/registry/*/FriendlyName", Target::Value, Form::Whole, UserAttachedKey,
     "in the Enum key of a user-attached device"},
    {kDeviceName, "/registry/*/DeviceDesc", Target::Value, Form::Whole, UserAttachedKey, "the same"},
    {kUniqueId, "/registry/*/MachineGuid", Target::Value, Form::Whole, nullptr, "the installation's ID"},
    {kAddress, "/registry/*/NetworkAddress", Target::Value, Form::Whole, nullptr, "a network adapter's set address"},
    {kInstanceId, "/registry/*/*", Target::Value, Form::AnyId, nullptr,
     "any registry text that is an instance ID or a device path"},
    {kInstanceId, "/registry", Target::Names, Form::EnumKey, nullptr, "key paths below `...\\Enum\\`"},
    {kInstanceId, "/devices/sets/*/*", Target::Value, Form::InstanceId, nullptr, "the devices of each set"},
    {kInstanceId, "/devices/nodes", Target::Names, Form::InstanceId, nullptr, "the nodes"},
    {kDeviceName, "/devices/nodes/*/properties/DEVPKEY_Device_FriendlyName", Target::Value, Form::Whole,
     UserAttachedNode, "of user-attached devices: Bluetooth, USB, HID and portable devices, and their audio endpoints"},
    {kDeviceName, "/devices/nodes/*/properties/DEVPKEY_Device_DeviceDesc", Target::Value, Form::Whole,
     UserAttachedNode, "the same"},
    {kDeviceName, "/devices/nodes/*/properties/DEVPKEY_NAME", Target::Value, Form::Whole, UserAttachedNode,
     "the same"},
    {kAddress, "/devices/nodes/*/properties/{2BD67D8B-8BEB-48D5-87E0-6CDA3428040A} 1", Target::Value,
     Form::Whole, nullptr, "a Bluetooth device's address"},
    {kUniqueId, "/devices/nodes/*/properties/{8C7ED206-3F8A-4827-B3AB-AE9E1FAEFC6C} 2", Target::Value,
     Form::Guid, nullptr, "a device's container ID"},
    {kInstanceId, "/devices/nodes/*/properties/*", Target::Value, Form::AnyId, nullptr,
     "`DEVPKEY_Device_InstanceId`, `DEVPKEY_Device_Parent` and any other property that holds one"},
    {kInstanceId, "/devices/nodes/*/interfaces/*/*", Target::Value, Form::DevicePath, nullptr,
     "device interface paths"},
    {kInstanceId, "/files/paths", Target::Names, Form::DevicePath, nullptr,
     "device paths the library opened; `\\\\.\\PHYSICALDRIVE0` and volumes stay"},
    {kSerial, "/files/paths/*/ioctls/*", Target::Value, Form::Whole, BatteryIdentity,
     "a battery's unique ID and serial number: `IOCTL_BATTERY_QUERY_INFORMATION` at levels 7 and 8"},
    {kInterfaceGuid, "/wlan/interfaces/*/guid", Target::Value, Form::Guid, nullptr, "Wi-Fi interfaces"},
    {kAdapterLuid, "/dxgi/adapters/*/luid", Target::Value, Form::Hex, nullptr, "DXGI adapters"},
    {kVideoKey, "/display/devices/*/key", Target::Value, Form::GuidTokens, nullptr,
     "the adapter's GUID in its video registry key"},
    {kAddress, "", Target::Texts, Form::Addresses, nullptr,
     "`DEV_` and twelve hex digits, in any text or member name"},
};

const char* FormName(Form form) {
    switch (form) {
    case Form::Whole: return "whole value";
    case Form::InstanceId: return "unique part";
    case Form::AnyId: return "unique part, where there is one";
    case Form::DevicePath: return "unique part of the device";
    case Form::EnumKey: return "unique part of the device";
    case Form::Query: return "compared literals";
    case Form::Guid: return "keyed GUID";
    case Form::Hex: return "keyed bytes";
    case Form::GuidTokens: return "GUIDs in it";
    case Form::Addresses: return "address tokens";
    }
    return "";
}

// Case-insensitive glob of one step: '*' stands for any run of characters.
bool Glob(const char* pattern, size_t size, const std::string& name) {
    auto same = [](char a, char b) { return std::tolower(static_cast<unsigned char>(a)) == std::tolower(static_cast<unsigned char>(b)); };
    size_t p = 0, n = 0, star = std::string::npos, mark = 0;
    while (n < name.size()) {
        if (p < size && pattern[p] == '*') {
            star = p++;
            mark = n;
        } else if (p < size && same(pattern[p], name[n])) {
            ++p;
            ++n;
        } else if (star != std::string::npos) {
            p = star + 1;
            n = ++mark;
        } else {
            return false;
        }
    }
    while (p < size && pattern[p] == '*') ++p;
    return p == size;
}

// The place's steps match the first `count` steps of the path.
bool MatchesHead(const char* place, const Path& path, size_t& count) {
    count = 0;
    if (*place == '\0') return true;
    for (const char* at = place + 1;; ++count) {
        const char* end = std::strchr(at, '/');
        const size_t size = end != nullptr ? static_cast<size_t>(end - at) : std::strlen(at);
        if (count >= path.size() || !Glob(at, size, path[count])) return false;
        if (end == nullptr) break;
        at = end + 1;
    }
    ++count;
    return true;
}

// The place is this path.
bool Matches(const char* place, const Path& path) {
    size_t count = 0;
    return MatchesHead(place, path, count) && count == path.size();
}

// The path lies on or below the place.
bool Beneath(const char* place, const Path& path) {
    size_t count = 0;
    return MatchesHead(place, path, count);
}

// Members of typed values that describe them rather than hold them.
bool Metadata(const std::string& member) {
    return member == "type" || member == "vt" || member == "error" || member == "returned" || member == "length";
}

// The text with each run between `separators` passed through `map`.
template <typename Map>
std::string EachToken(const std::string& text, const char* separators, Map map) {
    std::string out;
    for (size_t from = 0;;) {
        const size_t at = text.find_first_of(separators, from);
        out += map(text.substr(from, at == std::string::npos ? std::string::npos : at - from));
        if (at == std::string::npos) return out;
        out += text[at];
        from = at + 1;
    }
}

// ------------------------------------------------------------ redactor

class Redactor {
public:
    explicit Redactor(const Json& doc) {
        CollectPersonalNames(doc);
        CollectUniqueParts(doc);
    }

    std::vector<size_t> Run(Json& doc) {
        counts_.assign(std::size(kPolicy), 0);
        Path path;
        Walk(doc, path);
        return counts_;
    }

    bool Personal(const std::string& text) const { return names_.count(text) != 0; }

private:
    // ------------------------------------------------------ placeholders

    Digest Key(const std::string& domain, const std::string& canonical) const { return hash_(domain + '\n' + canonical); }

    // "REDACTED-" and 16 uppercase hex digits, keyed on the value.
    std::string Token(const std::string& canonical) {
        auto [at, added] = tokens_.try_emplace(canonical);
        if (!added) return at->second;
        const Digest digest = Key("text", canonical);
        static const char kDigits[] = "0123456789ABCDEF";
        std::string text = kPlaceholder;
        for (size_t i = 0; i < kPlaceholderDigits / 2; ++i) {
            text += kDigits[digest[i] >> 4];
            text += kDigits[digest[i] & 15];
        }
        return at->second = text;
    }

    std::string WholeText(const std::string& text) {
        const size_t first = text.find_first_not_of(" \t"), last = text.find_last_not_of(" \t");
        if (first == std::string::npos || IsPlaceholder(text)) return text;  // blank, or already replaced
        return Token(Upper(text.substr(first, last - first + 1)));
    }

    // Keyed bytes as long as the given ones, in the same letter case.
    std::string KeyedHex(const std::string& hex) {
        std::vector<uint8_t> bytes;
        if (!detail::ParseHex(hex, bytes) || bytes.empty()) return hex;
        std::string out;
        for (size_t block = 0; out.size() < bytes.size() * 2; ++block) {
            const Digest digest = Key("hex" + std::to_string(block), Lower(hex));
            out += detail::Hex(digest.data(), std::min(digest.size(), bytes.size() - out.size() / 2));
        }
        return hex == Lower(hex) ? out : Upper(out);
    }

    std::string KeyedGuid(const std::string& text) {
        GUID guid;
        if (!detail::ParseGuid(text, guid)) return text;
        const Digest digest = Key("guid", Upper(text));
        std::memcpy(&guid, digest.data(), sizeof(guid));
        guid.Data3 = static_cast<unsigned short>((guid.Data3 & 0x0FFF) | 0x4000);  // a random GUID's version
        guid.Data4[0] = static_cast<unsigned char>((guid.Data4[0] & 0x3F) | 0x80);
        const std::string out = detail::GuidText(guid);
        return text == Upper(text) ? out : Lower(out);
    }

    // A keyed number no larger than the original, so that it fits every
    // field the original fitted.
    Json KeyedNumber(const Json& number) {
        const Digest digest = Key("number", number.dump());
        uint64_t keyed;
        std::memcpy(&keyed, digest.data(), sizeof(keyed));
        if (number.is_number_unsigned()) {
            const uint64_t original = number.get<uint64_t>();
            return original == UINT64_MAX ? keyed : keyed % (original + 1);
        }
        if (number.is_number_integer()) {
            const int64_t original = number.get<int64_t>();
            if (original >= 0) return static_cast<int64_t>(keyed % (static_cast<uint64_t>(original) + 1));
            return -static_cast<int64_t>(keyed % (static_cast<uint64_t>(-(original + 1)) + 1));
        }
        return 0.0;
    }

    // ------------------------------------------------- recognised tokens

    std::string RedactId(const InstanceId& id, char separator) {
        std::string out;
        for (size_t i = 0; i < id.parts.size(); ++i) {
            std::string part = id.parts[i];
            if (i + 1 == id.parts.size()) {
                if (!IsPlaceholder(part)) part = Token(Upper(part));
            } else if (i > 0 && StartsWith(Upper(id.parts[0]), "BTH")) {
                part = BareAddresses(part);
            }
            out += (i == 0 ? "" : std::string(1, separator)) + part;
        }
        return Addresses(out);
    }

    // Bluetooth device IDs carry the address as a token of its own
    // ("..._REV&0007_d0c5d3a1b2c3").
    std::string BareAddresses(const std::string& part) {
        return EachToken(part, "_&", [&](const std::string& token) {
            return token.size() == 12 && IsHexDigits(token) ? Token(Upper(token)) : token;
        });
    }

    // "DEV_" and twelve hex digits, bounded by anything but a letter or digit.
    std::string Addresses(const std::string& text) {
        std::string out;
        size_t from = 0;
        for (size_t at = 0; at + 16 <= text.size(); ++at) {
            if ((text[at] != 'D' && text[at] != 'd') || (at > 0 && std::isalnum(static_cast<unsigned char>(text[at - 1])) != 0) ||
                Upper(text.substr(at, 4)) != "DEV_" || !IsHexDigits(text.substr(at + 4, 12)) ||
                (at + 16 < text.size() && std::isalnum(static_cast<unsigned char>(text[at + 16])) != 0))
                continue;
            out += text.substr(from, at + 4 - from) + Token(Upper(text.substr(at + 4, 12)));
            from = at + 16;
            at += 15;
        }
        return out + text.substr(from);
    }

    std::string InstanceIdText(const std::string& text, bool known) {
        InstanceId id;
        if (ParseInstanceId(text, '\\', known, id)) return RedactId(id, '\\');
        // WQL writes a backslash twice inside a literal.
        const bool escaped = text.find("\\\\") != std::string::npos;
        std::string plain = text;
        for (size_t at = 0; escaped && (at = plain.find("\\\\", at)) != std::string::npos; ++at) plain.erase(at, 1);
        if (!escaped || !ParseInstanceId(plain, '\\', known, id)) return known ? DevicePathText(text) : text;
        std::string redacted = RedactId(id, '\\'), out;
        for (char c : redacted) out += c == '\\' ? std::string("\\\\") : std::string(1, c);
        return out;
    }

    // "\\?\usbstor#disk&ven_x#4c530001&0#{53f56307-...}" (then maybe "\ref").
    std::string DevicePathText(const std::string& text) {
        if (!StartsWith(text, "\\\\?\\")) return text;
        const size_t guid = text.find("#{");
        if (guid == std::string::npos) return text;
        InstanceId id;
        if (!ParseInstanceId(text.substr(4, guid - 4), '#', false, id)) return text;
        return text.substr(0, 4) + RedactId(id, '#') + text.substr(guid);
    }

    // "SYSTEM\CurrentControlSet\Enum\USBSTOR\Disk&Ven_X\4C530001&0\Device Parameters"
    std::string EnumKeyText(const std::string& text) {
        const size_t at = Upper(text).find("\\ENUM\\");
        if (at == std::string::npos) return text;
        const size_t start = at + 6, first = text.find('\\', start);
        const size_t second = first == std::string::npos ? first : text.find('\\', first + 1);
        if (second == std::string::npos) return text;
        const size_t end = text.find('\\', second + 1);
        InstanceId id;
        if (!ParseInstanceId(text.substr(start, end == std::string::npos ? end : end - start), '\\', false, id)) return text;
        return text.substr(0, start) + RedactId(id, '\\') + (end == std::string::npos ? "" : text.substr(end));
    }

    // The profile's unique parts where they stand as a step of a path in a
    // longer text: between separators, never as the whole text or as part
    // of a longer token.
    std::string UniqueParts(const std::string& text) {
        static const char kSeparators[] = "\\#\"'/ ";
        if (uniqueParts_.empty() || text.find_first_of(kSeparators) == std::string::npos) return text;
        return EachToken(text, kSeparators, [&](const std::string& token) {
            return uniqueParts_.count(Upper(token)) != 0 ? Token(Upper(token)) : token;
        });
    }

    std::string GuidTokens(const std::string& text) {
        std::string out;
        size_t from = 0;
        for (size_t at = text.find('{'); at != std::string::npos && at + 38 <= text.size(); at = text.find('{', at + 1)) {
            GUID guid;
            if (!detail::ParseGuid(text.substr(at, 38), guid)) continue;
            out += text.substr(from, at + 1 - from) + Token(Upper(text.substr(at + 1, 36))) + "}";
            from = at + 38;
        }
        return out + text.substr(from);
    }

    // A literal of a WQL text, compared with `property`: replaced as the
    // first WMI row place for that property would replace its value.
    std::string QueryLiteral(const std::string& property, const std::string& literal) {
        const Path path = {"wmi", "", "queries", "", "rows", "0", property};
        for (const Row& row : kPolicy) {
            if (row.target != Target::Value || !StartsWith(row.place, kWmiRow) || !Matches(row.place, path)) continue;
            if (row.when != nullptr && !row.when(*this, path, Json(literal))) continue;
            return Text(row.form, literal);
        }
        return literal;
    }

    // Where the literal opened at `from` ends: a personal name is taken whole
    // even when it holds a quote ("Alice's Watch"), since the library quotes
    // a caption without escaping it.
    size_t LiteralEnd(const std::string& query, size_t from) const {
        size_t best = std::string::npos;
        for (const std::string& name : names_)
            if (query.compare(from, name.size(), name) == 0 && from + name.size() < query.size() &&
                query[from + name.size()] == '\'' && (best == std::string::npos || from + name.size() > best))
                best = from + name.size();
        if (best != std::string::npos) return best;
        for (size_t at = from; at < query.size(); ++at) {
            if (query[at] == '\\') ++at;
            else if (query[at] == '\'') return at;
        }
        return std::string::npos;
    }

    std::string QueryText(const std::string& query) {
        std::string out;
        size_t done = 0;
        for (size_t eq = query.find('='); eq != std::string::npos; eq = query.find('=', done)) {
            size_t end = eq;
            while (end > done && query[end - 1] == ' ') --end;
            size_t start = end;
            while (start > done && (std::isalnum(static_cast<unsigned char>(query[start - 1])) != 0 || query[start - 1] == '_')) --start;
            size_t quote = eq + 1;
            while (quote < query.size() && query[quote] == ' ') ++quote;
            const size_t close = quote < query.size() && query[quote] == '\'' ? LiteralEnd(query, quote + 1) : std::string::npos;
            if (start == end || close == std::string::npos) {
                out += query.substr(done, eq + 1 - done);
                done = eq + 1;
                continue;
            }
            out += query.substr(done, quote + 1 - done) +
                   QueryLiteral(query.substr(start, end - start), query.substr(quote + 1, close - quote - 1)) + "'";
            done = close + 1;
        }
        return out + query.substr(done);
    }

    // ------------------------------------------------------------ forms

    std::string Text(Form form, const std::string& text) {
        switch (form) {
        case Form::Whole: return WholeText(text);
        case Form::InstanceId: return InstanceIdText(text, false);
        case Form::AnyId: return UniqueParts(InstanceIdText(text, true));
        case Form::DevicePath: return DevicePathText(text);
        case Form::EnumKey: return EnumKeyText(text);
        case Form::Query: return QueryText(text);
        case Form::Guid: return KeyedGuid(text);
        case Form::Hex: return IsHexDigits(text) ? KeyedHex(text) : text;
        case Form::GuidTokens: return GuidTokens(text);
        case Form::Addresses: return Addresses(text);
        }
        return text;
    }

    // Applies a form to a value as the profile types it: {"sz": ...},
    // {"string_list": [...]}, {"vt": ..., "value": ...}, {"text": ...},
    // {"out": hex}, or plain JSON. Hex bytes, GUIDs and numbers change only
    // when the whole value goes.
    void Apply(Form form, Json& value) {
        if (value.is_string()) {
            value = Text(form, value.get<std::string>());
        } else if (value.is_number() && form == Form::Whole) {
            value = KeyedNumber(value);
        } else if (value.is_array()) {
            for (Json& item : value) Apply(form, item);
        } else if (value.is_object()) {
            const bool bytes = value.contains("vt") && value["vt"] == "VT_ARRAY|VT_UI1";
            for (auto& [member, item] : value.items()) {
                if (Metadata(member)) continue;
                const bool hex = member == "binary" || member == "out" || (member == "value" && bytes);
                if (form == Form::Whole && hex && item.is_string()) item = KeyedHex(item.get<std::string>());
                else if (form == Form::Whole && member == "guid" && item.is_string()) item = KeyedGuid(item.get<std::string>());
                else if (!hex) Apply(form, item);
            }
        }
    }

    // -------------------------------------------------------------- walk

    void Walk(Json& node, Path& path) {
        for (size_t i = 0; i < std::size(kPolicy); ++i) {
            const Row& row = kPolicy[i];
            if (row.target != Target::Value || !Matches(row.place, path) || (row.when != nullptr && !row.when(*this, path, node)))
                continue;
            const Json before = node;
            Apply(row.form, node);
            if (node != before) ++counts_[i];
            TokensIn(node, path);
            return;
        }
        if (node.is_object()) {
            const Row* namer = nullptr;
            size_t namerIndex = 0;
            for (size_t i = 0; i < std::size(kPolicy) && namer == nullptr; ++i)
                if (kPolicy[i].target == Target::Names && Matches(kPolicy[i].place, path)) namer = &kPolicy[i], namerIndex = i;
            Json renamed = Json::object();
            for (auto& [key, child] : node.items()) {
                path.push_back(key);
                Walk(child, path);
                path.pop_back();
                std::string name = namer != nullptr ? Text(namer->form, key) : key;
                if (namer != nullptr && name != key) ++counts_[namerIndex];
                renamed[Tokens(name, path)] = std::move(child);
            }
            node = std::move(renamed);
        } else if (node.is_array()) {
            for (size_t i = 0; i < node.size(); ++i) {
                path.push_back(std::to_string(i));
                Walk(node[i], path);
                path.pop_back();
            }
        } else if (node.is_string()) {
            node = Tokens(node.get<std::string>(), path);
        }
    }

    void TokensIn(Json& value, const Path& path) {
        if (value.is_string()) value = Tokens(value.get<std::string>(), path);
        else if (value.is_structured())
            for (Json& item : value) TokensIn(item, path);
    }

    // The "every text" rows on one text or member name.
    std::string Tokens(std::string text, const Path& path) {
        for (size_t i = 0; i < std::size(kPolicy); ++i) {
            if (kPolicy[i].target != Target::Texts || !Beneath(kPolicy[i].place, path)) continue;
            const std::string before = text;
            text = Text(kPolicy[i].form, text);
            if (text != before) ++counts_[i];
        }
        return text;
    }

    // --------------------------------------------------- personal names

    static const Json* Find(const Json& object, const char* key) { return detail::Child(&object, key); }

    static bool AttachedId(const Json* value) { return value != nullptr && value->is_string() && UserAttached(value->get<std::string>()); }

    void AddName(const std::string& name) {
        if (name.find_first_not_of(" \t") != std::string::npos) names_.insert(name);
    }
    void AddName(const Json* value) {
        if (value != nullptr && value->is_string()) AddName(value->get<std::string>());
    }

    // The names of user-attached devices: their nodes' names, and WMI
    // captions and names that go with such a device's ID, in one row or as
    // the literal of the query that answered it.
    void CollectPersonalNames(const Json& doc) {
        static const char* const kNameProperties[] = {"Caption", "Name", "Description"};
        if (const Json* nodes = detail::Child(detail::Child(&doc, "devices"), "nodes"); nodes != nullptr && nodes->is_object())
            for (const auto& [id, node] : nodes->items()) {
                const Json* properties = Find(node, "properties");
                if (!UserAttached(id) || properties == nullptr) continue;
                for (const char* key : {"DEVPKEY_Device_FriendlyName", "DEVPKEY_Device_DeviceDesc", "DEVPKEY_NAME"})
                    if (const Json* property = Find(*properties, key); property != nullptr && property->is_object())
                        AddName(Find(*property, "string"));
            }
        const Json* wmi = detail::Child(&doc, "wmi");
        if (wmi == nullptr || !wmi->is_object()) return;
        for (const auto& [ns, entry] : wmi->items()) {
            const Json* queries = Find(entry, "queries");
            if (queries == nullptr || !queries->is_object()) continue;
            for (const auto& [query, answer] : queries->items()) {
                const Json* rows = Find(answer, "rows");
                if (rows == nullptr || !rows->is_array()) continue;
                bool attached = false;
                for (const Json& row : *rows) {
                    if (!row.is_object()) continue;
                    const bool here = AttachedId(Find(row, "DeviceID")) || AttachedId(Find(row, "PNPDeviceID"));
                    attached = attached || here;
                    if (here)
                        for (const char* name : kNameProperties) AddName(Find(row, name));
                }
                if (attached) AddComparedName(query);
            }
        }
    }

    // The unique parts of the instance IDs at the places that hold them, long
    // enough to identify something (an ACPI "1" does not).
    void CollectUniqueParts(const Json& doc) {
        auto add = [&](const std::string& text, char separator) {
            InstanceId id;
            const bool path = separator == '#';
            const size_t end = path ? text.find("#{") : std::string::npos;
            if (path && (!StartsWith(text, "\\\\?\\") || end == std::string::npos)) return;
            if (!ParseInstanceId(path ? text.substr(4, end - 4) : text, separator, false, id)) return;
            if (id.parts.back().size() >= 6) uniqueParts_.insert(Upper(id.parts.back()));
        };
        const Json* devices = detail::Child(&doc, "devices");
        if (const Json* sets = detail::Child(devices, "sets"); sets != nullptr && sets->is_object())
            for (const auto& [key, ids] : sets->items())
                for (const Json& id : ids)
                    if (id.is_string()) add(id.get<std::string>(), '\\');
        if (const Json* nodes = detail::Child(devices, "nodes"); nodes != nullptr && nodes->is_object())
            for (const auto& [id, node] : nodes->items()) {
                add(id, '\\');
                if (const Json* interfaces = Find(node, "interfaces"); interfaces != nullptr && interfaces->is_object())
                    for (const auto& [guid, paths] : interfaces->items())
                        for (const Json& path : paths)
                            if (path.is_string()) add(path.get<std::string>(), '#');
            }
        if (const Json* paths = detail::Child(detail::Child(&doc, "files"), "paths"); paths != nullptr && paths->is_object())
            for (const auto& [path, entry] : paths->items()) add(path, '#');
        const Json* wmi = detail::Child(&doc, "wmi");
        if (wmi == nullptr || !wmi->is_object()) return;
        for (const auto& [ns, entry] : wmi->items()) {
            const Json* queries = Find(entry, "queries");
            if (queries == nullptr || !queries->is_object()) continue;
            for (const auto& [query, answer] : queries->items())
                if (const Json* rows = Find(answer, "rows"); rows != nullptr && rows->is_array())
                    for (const Json& row : *rows)
                        for (const char* property : {"DeviceID", "PNPDeviceID"})
                            if (const Json* value = row.is_object() ? Find(row, property) : nullptr; value != nullptr && value->is_string())
                                add(value->get<std::string>(), '\\');
        }
    }

    // "... WHERE Caption='NAME'": the name runs to the last quote.
    void AddComparedName(const std::string& query) {
        const std::string upper = Upper(query);
        for (const char* property : {"CAPTION", "NAME", "DESCRIPTION"}) {
            const size_t at = upper.rfind(std::string(" ") + property);
            if (at == std::string::npos) continue;
            size_t eq = at + 1 + std::strlen(property);
            while (eq < query.size() && query[eq] == ' ') ++eq;
            if (eq >= query.size() || query[eq] != '=') continue;
            size_t quote = eq + 1;
            while (quote < query.size() && query[quote] == ' ') ++quote;
            const size_t close = query.find_last_of('\'');
            if (quote < query.size() && query[quote] == '\'' && close > quote)
                AddName(query.substr(quote + 1, close - quote - 1));
        }
    }

    KeyedHash hash_;
    std::map<std::string, std::string> tokens_;
    std::set<std::string> names_;
    std::set<std::string> uniqueParts_;  // upper case
    std::vector<size_t> counts_;
};

bool PersonalName(const Redactor& redactor, const Path&, const Json& value) {
    return value.is_string() && redactor.Personal(value.get<std::string>());
}

// A registry key below "...\\Enum\\" of a user-attached device.
bool UserAttachedKey(const Redactor&, const Path& path, const Json&) {
    if (path.size() < 2) return false;
    const size_t at = Upper(path[1]).find("\\ENUM\\");
    return at != std::string::npos && UserAttached(path[1].substr(at + 6));
}

// "IOCTL_BATTERY_QUERY_INFORMATION 01000000 07000000 ...": the level is the
// second 32-bit word of the input.
bool BatteryIdentity(const Redactor&, const Path& path, const Json&) {
    const std::string& key = path.back();
    const std::string prefix = "IOCTL_BATTERY_QUERY_INFORMATION ";
    std::vector<uint8_t> input;
    if (!StartsWith(key, prefix) || !detail::ParseHex(key.substr(prefix.size()), input) || input.size() < 8) return false;
    uint32_t level;
    std::memcpy(&level, input.data() + 4, sizeof(level));
    return level == 7 || level == 8;  // BatteryUniqueID, BatterySerialNumber
}

}  // namespace

std::vector<RedactionPlace> RedactionPolicy() {
    std::vector<RedactionPlace> places;
    for (const Row& row : kPolicy)
        places.push_back({row.kind, *row.place == '\0' ? "/" : row.place,
                          row.target == Target::Value ? "value" : row.target == Target::Names ? "member names" : "every text",
                          FormName(row.form), row.note});
    return places;
}

std::vector<size_t> Redact(Profile& profile) {
    Redactor redactor(profile.doc());
    std::vector<size_t> counts = redactor.Run(profile.doc());
    profile.doc()["schema"] = kProfileSchema;
    return counts;
}

}  // namespace torvex::sim
