#include "node_table.h"

#include <cerrno>
#include <cstdio>
#include <sstream>

namespace sim {

std::vector<TableNode> parseNodeTable(const std::string& text)
{
    std::vector<TableNode> nodes;
    for (const std::string& line : textLines(text)) {
        std::istringstream in(line);
        std::string path, type, major, minor, mode;
        if (!(in >> path >> type >> major >> minor >> mode) || path.empty() || path[0] != '/') continue;
        if (type != "c" && type != "b") continue;
        uint64_t ma = 0, mi = 0;
        if (!parseNumber(major, ma) || !parseNumber(minor, mi) || ma > 0xfff || mi > 0xfffff) continue;
        unsigned perm = 0;
        if (std::sscanf(mode.c_str(), "%o", &perm) != 1 || perm > 07777) continue;
        nodes.push_back(TableNode{path, type == "c", static_cast<unsigned>(ma), static_cast<unsigned>(mi),
                                  static_cast<mode_t>(perm)});
    }
    return nodes;
}

std::string formatNodeTable(const std::vector<TableNode>& nodes)
{
    std::string text;
    for (const TableNode& n : nodes) {
        char mode[16];
        std::snprintf(mode, sizeof mode, "%04o", static_cast<unsigned>(n.perm & 07777));
        text += n.path + (n.character ? " c " : " b ") + std::to_string(n.major) + " " + std::to_string(n.minor) + " " +
                mode + "\n";
    }
    return text;
}

void NodeTable::refresh(Module& module)
{
    if (!module.stateChanged("nodes", stamp_)) return;
    nodes_ = parseNodeTable(module.readState("nodes"));
}

const std::vector<TableNode>& NodeTable::all(Module& module)
{
    refresh(module);
    return nodes_;
}

std::optional<TableNode> NodeTable::find(Module& module, const std::string& vpath)
{
    refresh(module);
    for (const TableNode& n : nodes_)
        if (n.path == vpath) return n;
    return std::nullopt;
}

bool NodeTable::add(Module& module, const TableNode& node)
{
    bool exists = false;
    module.updateState("nodes", [&](std::string& text) {
        std::vector<TableNode> nodes = parseNodeTable(text);
        for (const TableNode& n : nodes)
            if (n.path == node.path) exists = true;
        if (exists) return false;
        nodes.push_back(node);
        text = formatNodeTable(nodes);
        return true;
    });
    refresh(module);
    if (exists) errno = EEXIST;
    return !exists;
}

bool NodeTable::remove(Module& module, const std::string& vpath)
{
    bool found = false;
    module.updateState("nodes", [&](std::string& text) {
        std::vector<TableNode> nodes = parseNodeTable(text);
        for (size_t i = 0; i < nodes.size(); ++i)
            if (nodes[i].path == vpath) {
                nodes.erase(nodes.begin() + static_cast<long>(i));
                found = true;
                break;
            }
        if (!found) return false;
        text = formatNodeTable(nodes);
        return true;
    });
    refresh(module);
    if (!found) errno = ENOENT;
    return found;
}

} // namespace sim
