// The device nodes that mknod made, kept in "sim/nodes" of the module: no
// special file is ever made on the host. One line a node:
//
//   PATH c|b MAJOR MINOR MODE      (MODE the permission bits, octal)
//
// A node of the table stats as its type and numbers, opens as the driver of
// its major (ENXIO when no driver has it) and is taken away by unlink. A
// plain file at a path stays a plain file: mknod over it gives EEXIST.
#pragma once

#include <optional>
#include <string>
#include <sys/types.h>
#include <vector>

#include "module.h"

namespace sim {

struct TableNode {
    std::string path;
    bool character = true;
    unsigned major = 0;
    unsigned minor = 0;
    mode_t perm = 0600;
};

// Never fails: a line it cannot read is skipped.
std::vector<TableNode> parseNodeTable(const std::string& text);
std::string formatNodeTable(const std::vector<TableNode>& nodes);

// The table of a module, read again only when it changed.
class NodeTable {
public:
    std::optional<TableNode> find(Module& module, const std::string& vpath);
    const std::vector<TableNode>& all(Module& module);
    // False with EEXIST when the path is in the table already.
    bool add(Module& module, const TableNode& node);
    // False with ENOENT when it is not in the table.
    bool remove(Module& module, const std::string& vpath);

private:
    void refresh(Module& module);
    Module::Stamp stamp_;
    std::vector<TableNode> nodes_;
};

} // namespace sim
