// Commands over the exported device helper class: hardware IDs of a device
// setup class, one device's properties and driver stack, uninstalling a
// device, and the audio codecs.
//
// The tool loads Torvex.dll at run time, so the helper's members are looked
// up by their decorated names (this toolchain's) and called through member
// pointers built from those addresses; the class has no data members, so any
// suitably aligned storage constructed by its exported constructor serves as
// the object.
#include <objbase.h>

#include <cstdio>
#include <cstring>
#include <iostream>

#include "audio_facts.h"
#include "tool.h"

namespace tool {
namespace {

using Strings = std::vector<std::wstring>;
using ListOfClass = Strings (DeviceInformention::*)(const GUID&);
using TextOfDevice = std::wstring (DeviceInformention::*)(const std::wstring&, const GUID&, EnumDeviceProperty);
using NumberOfDevice = unsigned int (DeviceInformention::*)(const std::wstring&, const GUID&, EnumDeviceProperty);
using ListOfDevice = Strings (DeviceInformention::*)(const std::wstring&, const GUID&);
using IdList = Strings (DeviceInformention::*)(const GUID&, const std::wstring&);
using TimeOfDevice = unsigned long long (DeviceInformention::*)(const std::wstring&, const GUID&);
using StatusOfDevice = unsigned int (DeviceInformention::*)(const std::wstring&, const GUID&);
using Lifetime = void (DeviceInformention::*)();

// A member pointer of this toolchain's ABI: code address and this-adjustment.
template <typename Member>
Member MemberAt(FARPROC address) {
    struct Raw {
        void* code;
        ptrdiff_t adjust;
    } raw{reinterpret_cast<void*>(address), 0};
    static_assert(sizeof(Member) == sizeof(Raw), "member pointers are two words");
    Member member;
    std::memcpy(&member, &raw, sizeof(member));
    return member;
}

// The exported helper, resolved once.
class DeviceHelper {
public:
    static DeviceHelper& Get() {
        static DeviceHelper helper;
        return helper;
    }
    ~DeviceHelper() { (self()->*Resolve<Lifetime>("_ZN18DeviceInformentionD1Ev"))(); }

    Strings HardwareIds(const GUID& cls) {
        return (self()->*Resolve<ListOfClass>("_ZN18DeviceInformention19GetDeviceHardwareIdB5cxx11ERK5_GUID"))(cls);
    }
    Strings Descriptions(const GUID& cls) {
        return (self()->*Resolve<ListOfClass>("_ZN18DeviceInformention13GetDeviceDescB5cxx11ERK5_GUID"))(cls);
    }
    std::wstring Text(const std::wstring& id, const GUID& cls, EnumDeviceProperty property) {
        return (self()->*Resolve<TextOfDevice>(
                             "_ZN18DeviceInformention28GetDeviceStrInfoByHardwareIdERKNSt7__cxx1112basic_stringIwSt11"
                             "char_traitsIwESaIwEEERK5_GUID18EnumDeviceProperty"))(id, cls, property);
    }
    unsigned int Number(const std::wstring& id, const GUID& cls, EnumDeviceProperty property) {
        return (self()->*Resolve<NumberOfDevice>(
                             "_ZN18DeviceInformention30GetDeviceULONGInfoByHardwareIdERKNSt7__cxx1112basic_stringIwSt"
                             "11char_traitsIwESaIwEEERK5_GUID18EnumDeviceProperty"))(id, cls, property);
    }
    Strings AllIds(const GUID& cls, const std::wstring& id) {
        return (self()->*Resolve<IdList>("_ZN18DeviceInformention23GetDeviceHardwareIDListERK5_GUIDRKNSt7__cxx1112"
                                         "basic_stringIwSt11char_traitsIwESaIwEEE"))(cls, id);
    }
    Strings Stack(const std::wstring& id, const GUID& cls) {
        return (self()->*Resolve<ListOfDevice>("_ZN18DeviceInformention15GetDeviceStatckERKNSt7__cxx1112basic_"
                                               "stringIwSt11char_traitsIwESaIwEEERK5_GUID"))(id, cls);
    }
    unsigned long long InstallTime(const std::wstring& id, const GUID& cls) {
        return (self()->*Resolve<TimeOfDevice>("_ZN18DeviceInformention17GetLastIntallTimeERKNSt7__cxx1112basic_"
                                               "stringIwSt11char_traitsIwESaIwEEERK5_GUID"))(id, cls);
    }
    unsigned int Uninstall(const std::wstring& id, const GUID& cls) {
        return (self()->*Resolve<StatusOfDevice>("_ZN18DeviceInformention25UnstallDeviceByHardwareIdERKNSt7__cxx1112"
                                                 "basic_stringIwSt11char_traitsIwESaIwEEERK5_GUID"))(id, cls);
    }

private:
    DeviceHelper() { (self()->*Resolve<Lifetime>("_ZN18DeviceInformentionC1Ev"))(); }
    DeviceInformention* self() { return reinterpret_cast<DeviceInformention*>(storage_); }

    template <typename Member>
    static Member Resolve(const char* name) {
        FARPROC address = GetProcAddress(Library().module, name);
        if (address == nullptr) {
            PrintError(std::string("torvex: Torvex.dll does not export ") + name);
            std::exit(kExitRefused);
        }
        return MemberAt<Member>(address);
    }

    alignas(16) unsigned char storage_[16] = {};
};

struct NamedClass {
    const char* name;
    GUID guid;
};
const NamedClass kClasses[] = {
    {"media", {0x4D36E96C, 0xE325, 0x11CE, {0xBF, 0xC1, 0x08, 0x00, 0x2B, 0xE1, 0x03, 0x18}}},
    {"display", {0x4D36E968, 0xE325, 0x11CE, {0xBF, 0xC1, 0x08, 0x00, 0x2B, 0xE1, 0x03, 0x18}}},
    {"net", {0x4D36E972, 0xE325, 0x11CE, {0xBF, 0xC1, 0x08, 0x00, 0x2B, 0xE1, 0x03, 0x18}}},
    {"system", {0x4D36E97D, 0xE325, 0x11CE, {0xBF, 0xC1, 0x08, 0x00, 0x2B, 0xE1, 0x03, 0x18}}},
    {"usb", {0x36FC9E60, 0xC465, 0x11CF, {0x80, 0x56, 0x44, 0x45, 0x53, 0x54, 0x00, 0x00}}},
    {"hidclass", {0x745A17A0, 0x74D3, 0x11D0, {0xB6, 0xFE, 0x00, 0xA0, 0xC9, 0x0F, 0x57, 0xDA}}},
    {"bluetooth", {0xE0CBF06C, 0xCD8B, 0x4647, {0xBB, 0x8A, 0x26, 0x3B, 0x43, 0xF0, 0xF9, 0x74}}},
};
constexpr char kClassHelp[] = "a class name (media, display, net, system, usb, hidclass, bluetooth) or {GUID}";

std::optional<GUID> ParseClass(const std::wstring& text) {
    for (const auto& entry : kClasses)
        if (Utf8(text) == entry.name) return entry.guid;
    if (text.size() != 38 || text.front() != L'{') return std::nullopt;
    GUID guid{};
    std::wstring copy = text;
    if (FAILED(CLSIDFromString(copy.data(), &guid))) return std::nullopt;
    return guid;
}

int RunIds(const std::vector<std::wstring>& args) {
    if (args.size() != 1) return UsageError("device-ids", "expected one device class");
    const auto cls = ParseClass(args[0]);
    if (!cls) return UsageError("device-ids", std::string("unknown class; give ") + kClassHelp);
    auto& helper = DeviceHelper::Get();
    const Strings ids = helper.HardwareIds(*cls);
    const Strings descriptions = helper.Descriptions(*cls);
    if (ids.empty()) {
        PrintError("torvex device-ids: no present device in that class");
        return kExitRefused;
    }
    for (size_t i = 0; i < ids.size(); ++i) {
        const std::string id = ids[i].empty() ? "(no hardware ID)" : Utf8(ids[i]);
        PrintLine(id + (i < descriptions.size() && !descriptions[i].empty() ? "  " + Utf8(descriptions[i]) : ""));
    }
    return kExitOk;
}

const CommandRegistration kIds("device-ids", "device-ids CLASS",
                               "list the first hardware ID and description of every present device of a class",
                               "torvex device-ids media", RunIds);

int RunDevice(const std::vector<std::wstring>& args) {
    if (args.size() != 2) return UsageError("device", "expected a device class and a hardware ID");
    const auto cls = ParseClass(args[0]);
    if (!cls) return UsageError("device", std::string("unknown class; give ") + kClassHelp);
    auto& helper = DeviceHelper::Get();
    const std::wstring& id = args[1];
    const Strings allIds = helper.AllIds(*cls, id);
    if (allIds.empty()) {
        PrintError("torvex device: no present device of that class has the first hardware ID " + Utf8(id));
        return kExitRefused;
    }
    struct Property {
        const char* name;
        EnumDeviceProperty property;
    };
    const Property properties[] = {
        {"description", EnumDeviceProperty::DeviceDesc},     {"manufacturer", EnumDeviceProperty::Manufacturer},
        {"driver version", EnumDeviceProperty::DriverVersion}, {"driver provider", EnumDeviceProperty::DriverProvider},
        {"friendly name", EnumDeviceProperty::FriendlyName}, {"enumerator", EnumDeviceProperty::EnumeratorName},
        {"instance ID", EnumDeviceProperty::InstanceId},     {"INF", EnumDeviceProperty::DriverInfPath},
    };
    for (const auto& p : properties) {
        const std::wstring value = helper.Text(id, *cls, p.property);
        PrintLine(std::string(p.name) + ": " + (value.empty() ? "-" : Utf8(value)));
    }
    PrintLine("problem code: " + std::to_string(helper.Number(id, *cls, EnumDeviceProperty::ProblemCode)));
    const unsigned long long installed = helper.InstallTime(id, *cls);
    PrintLine("first installed: " + (installed == 0 ? std::string("-") : std::to_string(installed) + " ms since 1970"));
    PrintLine("hardware IDs:");
    for (const auto& entry : allIds) PrintLine("  " + Utf8(entry));
    PrintLine("driver stack:");
    const Strings stack = helper.Stack(id, *cls);
    if (stack.empty()) PrintLine("  -");
    for (const auto& entry : stack) PrintLine("  " + Utf8(entry));
    return kExitOk;
}

const CommandRegistration kDevice("device", "device CLASS HARDWARE-ID",
                                  "show one device's properties, hardware IDs and driver stack",
                                  "torvex device media \"HDAUDIO\\FUNC_01&VEN_10EC&DEV_0295\"", RunDevice);

bool Confirmed(const std::string& question) {
    Print(question + " [y/N] ");
    std::fflush(stdout);
    std::string answer;
    if (!std::getline(std::cin, answer)) return false;
    return answer == "y" || answer == "Y" || answer == "yes";
}

int RunUninstall(const std::vector<std::wstring>& args) {
    std::vector<std::wstring> positional;
    bool yes = false;
    for (const auto& arg : args) {
        if (arg == L"--yes") yes = true;
        else if (!arg.empty() && arg[0] == L'-') return UsageError("uninstall", "unknown option " + Utf8(arg));
        else positional.push_back(arg);
    }
    if (positional.size() != 2) return UsageError("uninstall", "expected a device class and a hardware ID");
    const auto cls = ParseClass(positional[0]);
    if (!cls) return UsageError("uninstall", std::string("unknown class; give ") + kClassHelp);
    const std::wstring& id = positional[1];
    if (!yes && !Confirmed("Uninstall the device " + Utf8(id) + "?")) {
        PrintError("torvex uninstall: not confirmed, nothing removed");
        return kExitRefused;
    }
    const unsigned int status = DeviceHelper::Get().Uninstall(id, *cls);
    if (status == 0) {
        PrintLine("Device " + Utf8(id) + " uninstalled");
        return kExitOk;
    }
    if (status == 0xFFFFFFFFu)
        PrintError("torvex uninstall: no present device of that class has the first hardware ID " + Utf8(id));
    else
        PrintError("torvex uninstall: removal failed with error " + std::to_string(status));
    return kExitRefused;
}

const CommandRegistration kUninstall("uninstall", "uninstall CLASS HARDWARE-ID [--yes]",
                                     "uninstall a device by its first hardware ID (asks first unless --yes)",
                                     "torvex uninstall usb \"USB\\VID_0BDA&PID_8153\" --yes", RunUninstall);

int RunCodecs(const std::vector<std::wstring>& args) {
    if (!args.empty()) return UsageError("codecs", "takes no arguments");
    std::vector<Section> codecs;
    std::string note;
    if (!CodecSections(codecs, note)) {
        PrintError("torvex codecs: " + note);
        return kExitRefused;
    }
    for (const auto& codec : codecs) {
        PrintLine(codec.title);
        for (const auto& fact : codec.facts) {
            std::string value = fact.text ? *fact.text
                                : fact.number ? std::to_string(static_cast<long long>(*fact.number))
                                              : "not available (" + fact.reason + ")";
            PrintLine("  " + fact.name + ": " + value);
        }
    }
    return kExitOk;
}

const CommandRegistration kCodecs("codecs", "codecs",
                                  "show the audio codecs: description, manufacturer, driver version, problem code",
                                  "torvex codecs", RunCodecs);

}  // namespace
}  // namespace tool
