// The programs getMd5 runs in the module: the three awk programs of its
// pipeline and the manager program's listing.
//
//   awk '/STORAGE/ {x=1; next} /END/ {if (x == 1) exit} {if (x == 1) print $1}' FILE
//       the first field of each line after a line holding "STORAGE", up to a
//       line holding "END", of the module's FILE; a missing file: status 2.
//   awk '/md5/ {print $3 ;exit}'
//       the third field of the first input line holding "md5".
//   awk -F\' '{print $2}'
//       the second field of each input line split at single quotes.
//   /etc/marrowby/system/dbd_manager [ARGS] --system_id ID --list [--terminate N]
//       the database of system ID from sim/databases ("SYSTEMID MD5" lines):
//       "system ID" and "database md5 'MD5'"; an unknown id prints
//       "no database for system ID", status 1; without --system_id or
//       --list, a usage line and status 2.
// Any other awk program is no command of the module (127).
#pragma once

#include <map>
#include <string>

namespace sim {

class CommandTable;
class Module;

constexpr const char* kDbdManagerPath = "/etc/marrowby/system/dbd_manager";
constexpr const char* kUmemDevice = "/dev/umem/disc0/disc";

void addManagerProgramRules(CommandTable& table);

// The databases' md5 by system id (sim/databases).
std::map<std::string, std::string> databases(Module& module);
// Sets (or, for an empty md5, removes) the md5 of `systemId`.
void setDatabase(Module& module, const std::string& systemId, const std::string& md5);

} // namespace sim
