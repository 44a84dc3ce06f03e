// The signature a new drive of the product carries when it arrives, written
// from the drive's side: both copies of the block in the signature partition
// (part1, at bytes 0 and 524288), each an index sector whose serial number
// is the drive's own and whose MD2 covers bytes 16 to 511, one position
// record naming the drive with no owner and order 0, and a zeroed device
// table and string table. No stamps: both are 0. The drive manager's verdict
// on such a drive is "new drive of the product" (9).
#pragma once

#include <string>

namespace sim {

class Module;

// The block of one copy for a drive of serial number `serial` (2048 bytes).
std::string newProductSignature(const std::string& serial);

// Writes both copies onto the drive of `bay`, whose table must give it a
// signature partition; "" or the reason it could not.
std::string signAsNewProduct(Module& module, int bay);

} // namespace sim
