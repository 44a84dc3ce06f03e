// Feeds arbitrary text to URegFile (as any configuration file), to the
// model table reader (as hwid.conf and as the PCI list) and to the resource
// table cursor (as hwlist.conf). The files are served from memory; saves go
// nowhere.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>

#include "hwlib/tavhwid.h"
#include "platform/platform.h"
#include "tavconfig/regfile.h"

namespace {

const char* const kPci = "0000\t80861237\t0\n0008\t10000021\t5\n";

class MemoryPlatform : public plat::ForwardingPlatform {
public:
    MemoryPlatform() : ForwardingPlatform(plat::hostPlatform()) {}

    std::string input;
    std::string pci;

    FILE* fopen(const char* path, const char* mode) override
    {
        if (mode[0] != 'r') return std::fopen("/dev/null", "w");
        const std::string& text = std::strcmp(path, HWID_LOCATION_PROC) == 0 ? pci : input;
        if (text.empty()) return std::fopen("/dev/null", "r");
        return fmemopen(const_cast<char*>(text.data()), text.size(), "r");
    }
    int stat(const char*, struct ::stat*) override { return -1; }
    int unlink(const char*) override { return 0; }
    int rename(const char*, const char*) override { return 0; }
    int fsync(int) override { return 0; }
    void sync() override {}
};

void exerciseRegFile()
{
    URegFile reg;
    if (!reg.Open("/etc/marrowby/fuzz.conf")) return;
    char name[URegFile::kMaxName + 1];
    char value[URegFile::kMaxValue + 1];
    int sections = 0;
    while (reg.getNextSection(name) && sections++ < 50) {
        int at = reg.iLastLoc;
        reg.getValue("key", value, 7);
        reg.getValue("a", value, "dflt", 0);
        int i;
        unsigned long ul;
        double d;
        bool b;
        reg.getValue("n", &i);
        reg.getValue("n", &ul);
        reg.getValue("n", &d);
        reg.getValue("b", &b);
        reg.getNextValue("k", value);
        reg.iLastLoc = at;
        reg.GoTo(name);
    }
    reg.goHead();
    reg.setValue("key", "v");
    reg.addKey("k2", 3);
    reg.goTail();
    reg.setValue("tail", 1.5);
    reg.addSection("NEW");
    reg.renameSection("NEW", "OLD");
    reg.removeSection("A");
    reg.SaveNow();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static MemoryPlatform memory;
    plat::ScopedPlatform scope(memory);
    memory.input.assign(reinterpret_cast<const char*>(data), size);

    memory.pci = kPci;
    exerciseRegFile();
    hwid_freeModelInfo(hwid_getModelInfo(nullptr));
    hwidResource resource;
    resource.GetNResources("PCI", "NVRAM");

    memory.pci = memory.input;
    hwid_freeModelInfo(hwid_getModelInfo(nullptr));
    return 0;
}
