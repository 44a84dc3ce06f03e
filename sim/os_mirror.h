// The appliance's OS mirror script, as the module answers it:
//
//   /etc/marrowby/tav_osraid stop BASE
//       takes the drive's members, BASE + "part5" of /dev/md200 and BASE +
//       "part7" of /dev/md201, out of the arrays as mdadm --fail and then
//       --remove do: the arrays run degraded.
//   /etc/marrowby/tav_osraid start BASE
//       puts them back with a hot add: each joins as a spare and recovery
//       onto it runs on the virtual clock. A faulty member of the same
//       partition still in the array (its drive left and came back) is
//       removed first, as --remove then --add do.
//
// BASE is the directory of a bay's disk node with its slash
// ("/dev/ide/host0/bus1/target0/lun0/"). Both go through the md driver of
// the module (md_kernel.h) under the module's lock. Status:
//   0  done for each array; also a member already out (stop) or already in
//      (start), and an array the kernel does not know or that does not run
//      (a module without OS mirrors runs the script harmlessly);
//   1  BASE is no bay of the module, or an array refused a step: the last
//      in-sync member of a mirror cannot leave; start needs the drive in the
//      bay with its os and log partitions big enough. One output line per
//      refusal: "mdN: NAME: WHY";
//   2  not "start" or "stop" with one operand: a usage line.
// What was done with each array of a run that failed stays done.
#pragma once

namespace sim {

class CommandTable;

constexpr const char* kOsMirrorScript = "/etc/marrowby/tav_osraid";

void addOsMirrorRules(CommandTable& table);

} // namespace sim
