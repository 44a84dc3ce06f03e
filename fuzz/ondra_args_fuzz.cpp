// A daemon's argument files and run-time texts, on a simulated module made
// once. Byte 0 picks the operation, the rest is its text:
//   0: the bytes are the store's Daemon file, read back through setArgsFromFile;
//   1: the bytes are a run-time text split by addArgs into a vector that has
//      a few arguments already;
//   2: addArg of the text, then its result is read back;
//   3: deleteArg of the text on a Daemon file of a few arguments;
//   4: the bytes, cut at newlines into at most 64 arguments, are written by
//      writeArgsToFile and loaded again: every argument of at most 1022
//      characters with no NUL that isn't "END" must come back unchanged (a
//      longer one comes back in pieces, by design).
// No daemon runs, so addArg and deleteArg kill nothing.
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "driveutils/ondraProcess.h"
#include "fuzz_module.h"
#include "sim/daemons.h"

namespace {

const char* daemonFile() { return ondraCfgFiles[ONDRA_RUN_DAEMON][ONDRA_PROC_STORE]; }

void put(const std::string& text)
{
    FILE* f = plat::fopen(daemonFile(), "w");
    if (!f) std::abort();
    std::fwrite(text.data(), 1, text.size(), f);
    std::fclose(f);
}

void freeAll(char** args, int count)
{
    for (int i = 0; i < count; ++i) std::free(args[i]);
}

void roundTrip(TavOndraProcess& store, const std::string& text)
{
    std::vector<std::string> want;
    size_t begin = 0;
    while (want.size() < ONDRA_MAX_ARGS && begin <= text.size()) {
        size_t end = text.find('\n', begin);
        if (end == std::string::npos) end = text.size();
        std::string arg = text.substr(begin, end - begin);
        if (arg.size() <= 1022 && arg.find('\0') == std::string::npos && arg != "END") want.push_back(arg);
        begin = end + 1;
    }
    std::vector<char*> args;
    for (std::string& a : want) args.push_back(a.data());
    store.writeArgsToFile(args.data(), static_cast<int>(args.size()));
    char* loaded[ONDRA_ARGV_SIZE] = {};
    int n = loadArgs(loaded, ONDRA_MAX_ARGS, daemonFile(), "STORAGE", ONDRA_PROC_STORE);
    if (n != static_cast<int>(want.size())) std::abort();
    for (int i = 0; i < n; ++i)
        if (want[i] != loaded[i]) std::abort();
    freeAll(loaded, n);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static sim::SimPlatform& platform = [] () -> sim::SimPlatform& {
        sim::SimPlatform& p = fuzzmodule::install("ondra-args-fuzz", 1 << 16);
        sim::installDaemons(p.module());
        return p;
    }();
    (void)platform;
    if (size < 1) return 0;
    const std::string text(reinterpret_cast<const char*>(data) + 1, size - 1);
    TavOndraProcess store;
    store.type(ONDRA_PROC_STORE);
    TavString buffer;
    TavString none;
    switch (data[0] % 5) {
    case 0:
        put(text);
        store.setArgsFromFile(none, daemonFile());
        store.getArgs(buffer);
        break;
    case 1:
        put("STORAGE\n--dir\n/var/ondra/store\nEND\n");
        store.setArgsFromFile(none, daemonFile());
        buffer = text.c_str();
        store.addArgs(buffer);
        if (store.argCount() > ONDRA_MAX_ARGS) std::abort();
        break;
    case 2:
    case 3:
        put("STORAGE\n--dir\n/var/ondra/store\n--port\n1\n2\nEND\n");
        buffer = text.c_str();
        if (data[0] % 5 == 2)
            store.addArg(buffer, none);
        else
            store.deleteArg(buffer, none);
        {
            char* loaded[ONDRA_ARGV_SIZE] = {};
            int n = loadArgs(loaded, ONDRA_MAX_ARGS, daemonFile(), "STORAGE", ONDRA_PROC_STORE);
            freeAll(loaded, n);
        }
        break;
    default:
        roundTrip(store, text);
    }
    return 0;
}
