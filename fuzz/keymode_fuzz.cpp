// Key-mode lines of arbitrary bytes, read one after another into a grant
// tree, which is then flattened, walked and merged with listeners of the
// same keys.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "corvaneutils/tavkeyregistry.h"
#include "tavutils/tav_error.h"
#include "tavutils/tavkeymodenode.h"

namespace {

int answer(TavModParam*, int, int, void*) { return 0; }

} // namespace

int keymodeFuzzOne(const uint8_t* data, size_t size)
{
    if (size == 0) return 0;
    std::string input(reinterpret_cast<const char*>(data), size);
    FILE* stream = fmemopen(input.data(), input.size(), "r");
    if (!stream) return 0;
    std::vector<std::unique_ptr<TavKeyMode>> modes;
    TavKeyModeNode root;
    for (int line = 0; line < 256 && !feof(stream); ++line) {
        auto mode = std::make_unique<TavKeyMode>();
        try {
            if (mode->read(stream) != 1) {
                // Skip to the next line, as a reader of a file would.
                int c;
                while ((c = fgetc(stream)) != EOF && c != '\n') {
                }
                continue;
            }
        } catch (const tav_enomem&) {
            continue;
        }
        if (std::strlen(mode->getKey()) > 255 || mode->numKeySegments() < 1) std::abort();
        if (root.addNode(mode.get(), 0) != 0) std::abort();
        modes.push_back(std::move(mode));
    }
    fclose(stream);

    TavVectorP<TavKeyMode> flat(10);
    root.flatten(&flat);
    for (int i = 0; i < flat.size(); ++i) {
        const char* key = flat[i]->getKey();
        size_t length = std::strlen(key);
        if (length < 2 || key[0] != '/' || key[length - 1] != '/') std::abort();
        delete flat[i];
    }
    for (auto& mode : modes) {
        TavKeyModeNode probe(mode.get());
        std::unique_ptr<TavVectorP<TavTreeNode>> path(root.getPath(&probe));
        if (path->size() > mode->numKeySegments() + 1) std::abort();
    }

    TAVKeyRegistry registry;
    for (auto& mode : modes) {
        registry.AddUserSecurityKey(mode->getKey(), mode->getMode());
        registry.Add(mode->getKey(), 1, static_cast<int>(mode->getMode().flags & 31), answer, nullptr);
    }
    registry.MergeKeys();
    if (registry.GetMergedKeyCount() > registry.GetKeyCount()) std::abort();
    return 0;
}

#ifndef TAV_FUZZ_REPLAY
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) { return keymodeFuzzOne(data, size); }
#endif
