// tavsim modules: the signed management modules of a module: the maker's and
// vendor's keys, sample modules signed or forged into "modules/", the
// versions file, and a listing of what the loader would make of each file.
#include <algorithm>
#include <cstdio>
#include <cstring>
#include <dirent.h>
#include <functional>
#include <iostream>
#include <string>
#include <sys/mman.h>
#include <unistd.h>
#include <vector>

#include "corvaneutils/tavmodule.h"
#include "corvaneutils/tavsession.h"
#include "json.h"
#include "module_signer.h"
#include "platform/platform.h"
#include "sim_platform.h"
#include "table.h"
#include "tavsim_cli.h"

namespace sim::cli {

const char kModulesHelp[] =
    "Without more arguments, lists every \".module\" file of DIR/modules, sorted:\n"
    "its ELF class, E (the end of its last section with file bytes) and the file's\n"
    "size, whether a trailer follows E, whether the data signature and the key\n"
    "signature verify and whether the vendor key is the keys file's (read by the\n"
    "simulation from the bytes alone), then what the loader makes of it: Open's\n"
    "result with verification, the module's version and the loader's reason. A\n"
    "file is loaded only when its signatures pass, so the version of a refused\n"
    "file shows as \"-\". --json gives the same as one JSON array, with the\n"
    "loader's log lines of each file.\n"
    "\n"
    "keys [--force]     make a maker key pair and a vendor key pair (512-bit DSA):\n"
    "                   configs/etc/marrowby/module_keys, the maker's five numbers\n"
    "                   then the vendor's four, and the vendor's private key in\n"
    "                   sim/module_vendor_key. Refused when keys exist, unless\n"
    "                   --force.\n"
    "add NAME [--forge KIND] [--as FILE]\n"
    "                   sign the built sample module NAME (@SAMPLES@)\n"
    "                   into modules/FILE.module; FILE is NAME, or NAME-KIND for a\n"
    "                   forgery. KIND: data (a bit of the data flipped after\n"
    "                   signing), datasig or keysig (a value bit of that\n"
    "                   signature flipped), vendor (signed by a vendor key the\n"
    "                   maker signed but the keys file does not hold), maker (the\n"
    "                   vendor key signed by a stranger), truncate (the trailer\n"
    "                   cut short), no-cover (the section table left behind the\n"
    "                   sections), exact-digest (the digest over E bytes, not\n"
    "                   whole blocks), no-trailer (made to end at E, nothing\n"
    "                   appended).\n"
    "require VENDOR.NAME VERSION\n"
    "                   the versions file configs/etc/sysconfig/module_versions\n"
    "                   requires VERSION (N.N or N.N.N) of that module; a line for\n"
    "                   the same VENDOR.NAME is replaced. The sample modules are\n"
    "                   vendorx.hello.\n";

namespace {

const char kKeysFile[] = "configs/etc/marrowby/module_keys";
const char kVendorKey[] = "sim/module_vendor_key";
const char kVersionsFile[] = "configs/etc/sysconfig/module_versions";

// The sample modules built beside tavsim (sim/modules/).
const char* const kSamples[] = {"good",      "noclose",   "refuse", "old", "noversion",
                                "mismatch2", "mismatch1", "access", "big"};

struct ForgeName {
    const char* name;
    Forge forge;
};
const ForgeName kForges[] = {{"data", Forge::kData},           {"datasig", Forge::kDataSig},
                             {"keysig", Forge::kKeySig},       {"vendor", Forge::kVendor},
                             {"maker", Forge::kMaker},         {"truncate", Forge::kTruncate},
                             {"no-cover", Forge::kNoCover},    {"exact-digest", Forge::kExactDigest},
                             {"no-trailer", Forge::kNoTrailer}};

std::string sampleList()
{
    std::vector<std::string> names(std::begin(kSamples), std::end(kSamples));
    return listed(names);
}

bool readHostFile(const std::string& path, std::string& out)
{
    FILE* in = std::fopen(path.c_str(), "rb");
    if (!in) return false;
    out.clear();
    char buffer[1 << 16];
    size_t n;
    while ((n = std::fread(buffer, 1, sizeof buffer, in)) > 0) out.append(buffer, n);
    const bool ok = !std::ferror(in);
    std::fclose(in);
    return ok;
}

int makeKeys(const Call& call, Module& module, bool force)
{
    const HostDir& host = module.host();
    if (!force && (host.exists(kKeysFile) || host.exists(kVendorKey)))
        return refused(call, std::string(kKeysFile) + ": keys exist; give --force to make new ones");
    SignerKey maker, vendor;
    if (!host.makeDirs("configs/etc/marrowby") || !host.writeFileAtomic(kKeysFile, moduleKeysFile(maker, vendor)) ||
        !host.writeFileAtomic(kVendorKey, vendor.allNumbers()))
        return refused(call, std::string("cannot write the keys: ") + std::strerror(errno));
    report("made the maker's and the vendor's keys: " + std::string(kKeysFile) + ", " + kVendorKey);
    return kDone;
}

bool validFileName(const std::string& name)
{
    return !name.empty() && name.size() <= 200 && name[0] != '.' &&
           name.find_first_not_of("abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789._-") ==
               std::string::npos;
}

int addModule(const Call& call, Module& module, const Words& w)
{
    if (w.positional.size() != 3) return badUsage(call, "add takes one NAME, one of " + sampleList());
    const std::string& name = w.positional[2];
    if (std::find(std::begin(kSamples), std::end(kSamples), name) == std::end(kSamples))
        return badUsage(call, "NAME " + cell(name) + ": no such sample module; give one of " + sampleList());
    Forge forge = Forge::kNone;
    std::string forgeName, file = name;
    for (const auto& [option, value] : w.options) {
        if (option == "--forge") {
            const std::string wanted = value;  // a structured binding can't be captured (C++20 on Clang 14)
            auto f = std::find_if(std::begin(kForges), std::end(kForges),
                                  [&](const ForgeName& n) { return wanted == n.name; });
            if (f == std::end(kForges)) {
                std::vector<std::string> names;
                for (const ForgeName& n : kForges) names.push_back(n.name);
                return badUsage(call, "--forge " + cell(value) + ": give one of " + listed(names));
            }
            forge = f->forge;
            forgeName = value;
            file = name + "-" + value;
        }
    }
    for (const auto& [option, value] : w.options)
        if (option == "--as") {
            if (!validFileName(value))
                return badUsage(call, "--as " + cell(value) + ": give a file name of letters, digits, '.', '_' and '-'");
            file = value;
        }

    const HostDir& host = module.host();
    std::string keys, vendorNumbers;
    if (!host.readFile(kKeysFile, keys) || !host.readFile(kVendorKey, vendorNumbers))
        return refused(call, "no keys to sign with; make them first: tavsim modules DIR keys");
    SignerKey maker(keys), vendor(vendorNumbers);
    if (!maker.ok() || !vendor.ok()) return refused(call, "the keys can't be read; make new ones: tavsim modules DIR keys --force");

    const std::string object = std::string(TAV_SAMPLE_MODULE_DIR) + "/sample_" + name + ".so";
    std::string bytes, error;
    if (!readHostFile(object, bytes)) return refused(call, object + ": " + std::strerror(errno) + "; build the sample modules");
    const std::string signedBytes = signModule(bytes, maker, vendor, forge, &error);
    if (signedBytes.empty()) return refused(call, object + ": " + error);
    const std::string rel = "modules/" + file + ".module";
    if (!host.makeDirs("modules") || !host.writeFileAtomic(rel, signedBytes))
        return refused(call, rel + ": " + std::strerror(errno));
    report("signed sample " + name + (forge == Forge::kNone ? "" : ", forged " + forgeName) + ", into ./" + rel + " (" +
           std::to_string(signedBytes.size()) + " bytes)");
    return kDone;
}

bool validVersion(const std::string& v)
{
    int parts = 1;
    bool digit = false;
    for (char c : v) {
        if (c == '.') {
            if (!digit) return false;
            ++parts;
            digit = false;
        } else if (c >= '0' && c <= '9') {
            digit = true;
        } else {
            return false;
        }
    }
    return digit && v.size() <= 30 && (parts == 2 || parts == 3);
}

int requireVersion(const Call& call, Module& module, const Words& w)
{
    if (w.positional.size() != 4) return badUsage(call, "require takes VENDOR.NAME and VERSION");
    const std::string& who = w.positional[2];
    const std::string& version = w.positional[3];
    const size_t dot = who.find('.');
    if (dot == std::string::npos || dot == 0 || dot + 1 == who.size() || who.size() > 200 ||
        who.find_first_of(": \t\n") != std::string::npos)
        return badUsage(call, "VENDOR.NAME " + cell(who) + ": give a vendor and a name joined by '.', such as vendorx.hello");
    if (!validVersion(version))
        return badUsage(call, "VERSION " + cell(version) + ": give two or three numbers joined by '.', such as 6.5.2");
    const HostDir& host = module.host();
    std::string text, out;
    host.readFile(kVersionsFile, text);
    size_t at = 0;
    while (at < text.size()) {
        size_t end = text.find('\n', at);
        end = end == std::string::npos ? text.size() : end + 1;
        const std::string line = text.substr(at, end - at);
        if (line.compare(0, who.size() + 1, who + ":") != 0) out += line + (line.back() == '\n' ? "" : "\n");
        at = end;
    }
    out += who + ":" + version + "\n";
    if (!host.makeDirs("configs/etc/sysconfig") || !host.writeFileAtomic(kVersionsFile, out))
        return refused(call, std::string(kVersionsFile) + ": " + std::strerror(errno));
    report(who + " must be at least version " + version + " (" + kVersionsFile + ")");
    return kDone;
}

// What one file is, and what the loader makes of it.
struct Listed {
    std::string file;
    ModuleReport report;
    int open = 0;
    std::string openText, version = "-", reason;
    std::vector<std::string> log;
};

// Standard error, where the loader logs, caught in memory while `run` runs.
std::string caughtLog(const std::function<void()>& run)
{
    std::fflush(stderr);
    const int memory = ::memfd_create("tavsim-loader-log", MFD_CLOEXEC);
    const int saved = memory >= 0 ? ::dup(2) : -1;
    if (saved < 0 || ::dup2(memory, 2) < 0) {
        if (memory >= 0) ::close(memory);
        if (saved >= 0) ::close(saved);
        run();
        return "";
    }
    run();
    std::fflush(stderr);
    ::dup2(saved, 2);
    ::close(saved);
    std::string log;
    char buffer[4096];
    ssize_t n;
    off_t at = 0;
    while ((n = ::pread(memory, buffer, sizeof buffer, at)) > 0) {
        log.append(buffer, static_cast<size_t>(n));
        at += n;
    }
    ::close(memory);
    return log;
}

// The loader's reason: its last line that tells of a failure, other than
// the lines every failure ends with.
std::string reasonOf(const std::vector<std::string>& log)
{
    static const char* const generic[] = {"WARNING: Failed to load module", "ERROR:  Module signature failed",
                                          "Warning: Module "};
    for (auto it = log.rbegin(); it != log.rend(); ++it) {
        const std::string& l = *it;
        if (std::any_of(std::begin(generic), std::end(generic), [&](const char* g) { return l.rfind(g, 0) == 0; }))
            continue;
        if (l.rfind("ERROR", 0) == 0 || l.rfind("WARNING", 0) == 0 || l.rfind("Warning", 0) == 0 ||
            l.rfind("LOADER ERROR", 0) == 0 || l.find("should be") != std::string::npos || l.find("failed") != std::string::npos)
            return l;
    }
    return "";
}

Listed listOne(Module& module, const std::string& name, const std::string& keys)
{
    Listed l;
    l.file = "./modules/" + name;
    std::string bytes;
    module.host().readFile("modules/" + name, bytes);
    l.report = inspectModule(bytes, keys);
    const std::string log = caughtLog([&] {
        TAVSession session;
        session.initCryptoKeys(1);
        l.open = session.loadModule(l.file.c_str(), 1);
        if (l.open == 0 && session.getModule(0) && session.getModule(0)->GetInfo(3))
            l.version = session.getModule(0)->GetInfo(3);
    });
    size_t at = 0;
    while (at < log.size()) {
        size_t end = log.find('\n', at);
        if (end == std::string::npos) end = log.size();
        std::string line = log.substr(at, end - at);
        while (!line.empty() && (line.back() == '\r' || line.back() == '\n')) line.pop_back();
        if (!line.empty()) l.log.push_back(line);
        at = end + 1;
    }
    l.openText = l.open == 0 ? "loaded" : "refused";
    for (const TAVMODULE_ERROR_TABLE& row : tavmodule_errors)
        if (row.iErrorCode == l.open && l.open != 0) l.openText = row.pcErrorMessage;
    l.reason = reasonOf(l.log);
    return l;
}

std::vector<std::string> moduleFiles(Module& module)
{
    std::vector<std::string> names;
    DIR* d = module.host().opendir("modules");
    if (!d) return names;
    while (dirent* e = ::readdir(d)) {
        const std::string n = e->d_name;
        if (n.size() > 7 && n.compare(n.size() - 7, 7, ".module") == 0) names.push_back(n);
    }
    ::closedir(d);
    std::sort(names.begin(), names.end());
    return names;
}

const char* yesNo(bool b) { return b ? "yes" : "no"; }

int listModules(Module& module, bool json)
{
    std::string keys;
    module.host().readFile(kKeysFile, keys);
    std::vector<Listed> all;
    {
        SimPlatform platform(module.dir());
        plat::ScopedPlatform scope(platform);
        for (const std::string& name : moduleFiles(module)) all.push_back(listOne(module, name, keys));
    }
    if (json) {
        JsonWriter j(std::cout);
        j.beginArray();
        for (const Listed& l : all) {
            const ModuleReport& r = l.report;
            j.beginObject().key("file").string(l.file).key("elfClass").number(r.elfClass);
            j.key("end").unsignedNumber(r.end).key("size").unsignedNumber(r.size).key("trailer").boolean(r.trailer);
            j.key("dataSignature").boolean(r.dataSignature).key("keySignature").boolean(r.keySignature);
            j.key("vendorKnown").boolean(r.vendorKnown).key("version").string(l.version);
            j.key("open").number(l.open).key("openText").string(l.openText).key("reason").string(l.reason);
            j.key("log").beginArray();
            for (const std::string& line : l.log) j.string(line);
            j.endArray().endObject();
        }
        j.endArray();
        return kDone;
    }
    if (all.empty()) {
        report("no .module file in " + module.dir() + "/modules");
        return kDone;
    }
    Table t({"FILE", "CLASS", "E", "SIZE", "TRAILER", "DATASIG", "KEYSIG", "VENDOR", "VERSION", "OPEN", "RESULT"});
    for (const Listed& l : all) {
        const ModuleReport& r = l.report;
        t.add({l.file, r.elfClass ? "ELF" + std::to_string(r.elfClass) : "-", std::to_string(r.end),
               std::to_string(r.size), r.trailer ? (r.trailerRead ? "yes" : "short") : "no",
               yesNo(r.dataSignature), yesNo(r.keySignature), r.trailerRead ? (r.vendorKnown ? "known" : "unknown") : "-",
               l.version, std::to_string(l.open), l.openText + (l.reason.empty() ? "" : " " + l.reason)});
    }
    t.print(std::cout);
    if (keys.empty()) std::cout << "no keys file (" << kKeysFile << "): nothing verifies\n";
    return kDone;
}

} // namespace

std::string sampleModuleNames() { return sampleList(); }

int runModules(const Call& call)
{
    Words w;
    int status = 0;
    auto module = openModuleCall(call, {{"--json", nullptr}, {"--force", nullptr}, {"--forge", "KIND"}, {"--as", "FILE"}},
                                 1, 4, w, status);
    if (!module) return status;
    if (w.positional.size() == 1) {
        if (w.has("--force") || w.has("--forge") || w.has("--as")) return badUsage(call, "the listing takes only --json");
        return listModules(*module, w.has("--json"));
    }
    const std::string& verb = w.positional[1];
    if (verb == "keys") {
        if (w.positional.size() != 2 || w.has("--forge") || w.has("--as") || w.has("--json"))
            return badUsage(call, "keys takes only --force");
        return makeKeys(call, *module, w.has("--force"));
    }
    if (w.has("--force") || w.has("--json")) return badUsage(call, verb + " takes no --force or --json");
    if (verb == "add") return addModule(call, *module, w);
    if (w.has("--forge") || w.has("--as")) return badUsage(call, "--forge and --as go with add");
    if (verb == "require") return requireVersion(call, *module, w);
    return badUsage(call, "unexpected argument " + cell(verb) + "; give keys, add or require");
}

} // namespace sim::cli
