// Reading torvex-machine/1: its device, file, power and Wi-Fi errors were
// plain numbers; /2 writes every error as "0x" and eight hexadecimal digits.
// Nothing else differs: a /1 profile replays as it always did.
#include "source.h"

namespace torvex::sim::detail {
namespace {

void Convert(Json* node, const char* member) {
    if (node == nullptr || !node->is_object()) return;
    auto found = node->find(member);
    if (found != node->end() && found->is_number_integer()) *found = HresultText(static_cast<long>(ErrorCode(*found)));
}

Json* Member(Json* node, const char* member) {
    if (node == nullptr || !node->is_object()) return nullptr;
    auto found = node->find(member);
    return found != node->end() ? &*found : nullptr;
}

template <typename Each>
void ForEach(Json* node, Each each) {
    if (node == nullptr || !(node->is_object() || node->is_array())) return;
    for (Json& child : *node) each(&child);
}

}  // namespace

void UpgradeFromVersion1(Json& doc) {
    ForEach(Member(Member(&doc, "devices"), "nodes"), [](Json* node) {
        ForEach(Member(node, "properties"), [](Json* property) { Convert(property, "error"); });
        Convert(Member(node, "status"), "error");
    });
    Json* files = Member(&doc, "files");
    ForEach(Member(files, "paths"), [](Json* path) {
        Convert(Member(path, "open"), "error");
        ForEach(Member(path, "ioctls"), [](Json* answer) { Convert(answer, "error"); });
    });
    ForEach(Member(files, "free_space"), [](Json* root) { Convert(root, "error"); });
    Json* power = Member(&doc, "power");
    Convert(Member(power, "status"), "error");
    Convert(Member(power, "scheme"), "error");
    Convert(Member(power, "battery_state"), "status");
    Json* wlan = Member(&doc, "wlan");
    Convert(wlan, "open_error");
    Convert(wlan, "enum_error");
    ForEach(Member(wlan, "interfaces"), [](Json* item) {
        Convert(item, "radio_error");
        Convert(item, "set_error");
    });
    doc["schema"] = kProfileSchema;
}

}  // namespace torvex::sim::detail
