#include "hp_cli.h"

#include <sstream>

#include "commands.h"
#include "module.h"

namespace sim {
namespace {

std::string stateName(int slot) { return "hpacucli/ctrl" + std::to_string(slot); }

HpProperties parse(const std::string& text)
{
    HpProperties out;
    std::istringstream in(text);
    std::string line;
    while (std::getline(in, line)) {
        size_t colon = line.find(':');
        if (colon == std::string::npos) continue;
        size_t start = line.find_first_not_of(' ', colon + 1);
        out.emplace_back(line.substr(0, colon), start == std::string::npos ? "" : line.substr(start));
    }
    return out;
}

std::string format(const HpProperties& properties)
{
    std::string text;
    for (const auto& [label, value] : properties) text += label + ": " + value + "\n";
    return text;
}

// "slot=N" with N from 0 to 99; -1 otherwise.
int slotOf(const std::string& word)
{
    if (word.compare(0, 5, "slot=") != 0 || word.size() < 6 || word.size() > 7) return -1;
    int slot = 0;
    for (size_t i = 5; i < word.size(); ++i) {
        if (word[i] < '0' || word[i] > '9') return -1;
        slot = slot * 10 + (word[i] - '0');
    }
    return slot;
}

} // namespace

HpProperties hpCliProperties(Module& module, int slot) { return parse(module.readState(stateName(slot))); }

bool hpCliPresent(Module& module, int slot) { return module.host().exists(Module::stateFile(stateName(slot))); }

std::string hpCliSet(Module& module, const std::string& label, const std::string& value, int slot)
{
    if (label.empty() || label.find_first_of(":\n\r") != std::string::npos) return "a label holds no \":\" nor line break";
    if (value.find_first_of("\n\r") != std::string::npos) return "a value holds no line break";
    if (!module.host().makeDirs("sim/hpacucli")) return "cannot make the tool's state directory";
    bool written = module.updateState(stateName(slot), [&](std::string& text) {
        HpProperties properties = parse(text);
        bool found = false;
        for (auto& [l, v] : properties)
            if (l == label) {
                v = value;
                found = true;
            }
        if (!found) properties.emplace_back(label, value);
        text = format(properties);
        return true;
    });
    return written ? "" : "cannot write the controller's state";
}

void hpCliRemove(Module& module, int slot)
{
    Module::Lock lock(module);
    module.host().unlink(Module::stateFile(stateName(slot)));
}

std::string hpCliShow(Module& module, int slot, int& status)
{
    const std::string slotText = "slot=" + std::to_string(slot);
    if (!hpCliPresent(module, slot)) {
        status = 1;
        return "\nError: The controller identified by \"" + slotText + "\" was not detected.\n\n";
    }
    std::string out = "\nSmart Array SIM in Slot " + std::to_string(slot) + "\n";
    for (const auto& [label, value] : hpCliProperties(module, slot)) out += "   " + label + ": " + value + "\n";
    status = 0;
    return out + "\n";
}

void addHpCliRules(CommandTable& table)
{
    table.add({kHpCliPath}, [](CommandContext& ctx, const Words& argv) {
        int slot = argv.size() == 4 && argv[1] == "ctrl" && argv[3] == "show" ? slotOf(argv[2]) : -1;
        if (slot < 0) return CommandResult{1, "\nError: syntax error\n\n"};
        CommandResult result;
        result.output = hpCliShow(ctx.module, slot, result.status);
        return result;
    });
}

} // namespace sim
