#include "platform/xsvf_loader.h"

#include <dlfcn.h>

namespace plat::xsvf {
namespace {

constexpr const char* kLibraryName = "libtavxsvf.so";
constexpr const char* kPlaySymbol = "tav_xsvf_play";

using PlayFn = int (*)(int, const char*);

class Absent final : public Player {
public:
    int play(int, const char*) override { return 1; }
};

class Loaded final : public Player {
public:
    explicit Loaded(PlayFn fn) : fn_(fn) {}
    int play(int fd, const char* filename) override { return fn_(fd, filename); }

private:
    PlayFn fn_;
};

Player* resolve()
{
    static Absent absent;
    void* handle = ::dlopen(kLibraryName, RTLD_NOW | RTLD_LOCAL);
    if (!handle) return &absent;
    auto fn = reinterpret_cast<PlayFn>(::dlsym(handle, kPlaySymbol));
    if (!fn) {
        ::dlclose(handle);
        return &absent;
    }
    static Loaded loaded(fn);
    return &loaded;
}

} // namespace

Player& player()
{
    static Player* p = resolve();
    return *p;
}

} // namespace plat::xsvf
