#include "support/simulated_machine.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>

#include "support/torvex_test.h"

namespace torvex::test {

SimulatedMachine::SimulatedMachine(Json members) {
    if (!members.contains("schema")) members["schema"] = sim::kProfileSchema;
    profile = sim::Profile::Parse(members.dump(), "inline profile");
    machine_ = std::make_unique<sim::Machine>(TorvexModule(), sim::MachineOptions{&profile, nullptr, &trace});
}

SimulatedMachine::SimulatedMachine(MachineFile file) {
    profile = sim::Profile::Parse(MachineText(file.name), file.name);
    machine_ = std::make_unique<sim::Machine>(TorvexModule(), sim::MachineOptions{&profile, nullptr, &trace});
}

SimulatedMachine::~SimulatedMachine() = default;

std::vector<std::string> SimulatedMachine::Asked(const std::string& source) const {
    std::vector<std::string> calls;
    for (const sim::Event& event : trace.Events())
        if (event.source == source) calls.push_back(event.call);
    return calls;
}

std::string MachineText(const char* name) {
    const std::wstring path = ProgramDirectory() + L"\\machines\\" + std::wstring(name, name + strlen(name)) + L".json";
    std::string text;
    if (FILE* file = _wfopen(path.c_str(), L"rb")) {
        char buffer[65536];
        for (size_t read; (read = fread(buffer, 1, sizeof(buffer), file)) > 0;) text.append(buffer, read);
        fclose(file);
    }
    if (text.empty()) ADD_FAILURE() << "no profile " << name << " in tests/machines";
    return text;
}

void ExpectNothingHeld() {
    const sim::Machine::Held held = sim::Machine::Holding();
    EXPECT_FALSE(held.Any()) << "the library still holds " << held.Describe();
}

}  // namespace torvex::test
