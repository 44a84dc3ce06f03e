// Makes the fixed keys (fuzz/data/module_keys) and the seeds of the two
// module-file fuzz targets: module_seed_maker FUZZ_DIR. Run again only to
// renew them; the seeds hold signatures by these very keys.
#include <cstdio>
#include <fstream>
#include <string>

#include "module_fixture.h"
#include "sim/module_signer.h"

namespace {

void write(const std::string& path, const std::string& bytes)
{
    std::ofstream(path, std::ios::binary) << bytes;
}

} // namespace

int main(int argc, char** argv)
{
    if (argc != 2) {
        std::fprintf(stderr, "usage: module_seed_maker FUZZ_DIR\n");
        return 2;
    }
    const std::string dir = argv[1];
    sim::SignerKey maker, vendor;
    write(dir + "/data/module_keys", sim::moduleKeysFile(maker, vendor));
    const std::string elf = modulefuzz::elfData();
    struct {
        const char* name;
        sim::Forge forge;
    } const seeds[] = {{"signed", sim::Forge::kNone},        {"data_flipped", sim::Forge::kData},
                       {"data_sig_flipped", sim::Forge::kDataSig}, {"key_sig_flipped", sim::Forge::kKeySig},
                       {"unknown_vendor", sim::Forge::kVendor}, {"truncated", sim::Forge::kTruncate}};
    for (const auto& seed : seeds) {
        std::string error;
        const std::string module = sim::signModule(elf, maker, vendor, seed.forge, &error);
        if (module.empty()) {
            std::fprintf(stderr, "%s: %s\n", seed.name, error.c_str());
            return 1;
        }
        write(dir + "/corpus/module_file/" + seed.name, module);
        if (seed.forge != sim::Forge::kData) write(dir + "/corpus/module_trailer/" + seed.name, module.substr(elf.size()));
    }
    write(dir + "/corpus/module_file/no_trailer", elf);
    write(dir + "/corpus/module_trailer/zeros", std::string(64, '\0'));
    write(dir + "/corpus/module_trailer/huge_lengths", std::string(8, '\xff'));
    return 0;
}
