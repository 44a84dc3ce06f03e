#include "system_programs.h"

#include "driveutils/updatemount.h"
#include "sign.h"

namespace sim {
namespace {

// A program starts with the drive manager of a new process.
int freshUpdatemount(int argc, char** argv)
{
    resetDriveManager();
    return ::updatemount(argc, argv);
}

} // namespace

std::vector<std::pair<std::string, ProgramEntry>> systemPrograms() { return {{"updatemount", &freshUpdatemount}}; }

} // namespace sim
