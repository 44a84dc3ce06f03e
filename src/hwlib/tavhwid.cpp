#include "hwlib/tavhwid.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <streambuf>
#include <vector>
#include <sys/stat.h>

#if defined(__i386__) || defined(__x86_64__)
#include <cpuid.h>
#endif

#include "platform/platform.h"
#include "tavconfig/regfile.h"
#include "tavconfig/scan32.h"
#include "tavconfig/tavassert.h"

const char* HWID_LOCATION_PROC = "/proc/bus/pci/devices";
const char* HWID_LOCATION_CONFIG = "/etc/marrowby/hwid.conf";

namespace {

const char* const kModelDirFormat = "/etc/marrowby/brand/%s/";
const char* const kCommonDir = "/etc/marrowby/brand/common/";
const char* const kResourceFile = "/etc/marrowby/hwlist.conf";
const char* const kFeatureFile = "features.conf";
const unsigned int kAnyLocation = 0xFFFFFFFFU;

// The configuration names of freed records. They stay allocated for the
// life of the process, as they always did (a caller may still hold one);
// keeping them listed keeps them reachable.
std::mutex retainedLock;
std::vector<char*>& retainedNames()
{
    static auto* names = new std::vector<char*>; // never destroyed: stays reachable
    return *names;
}

// An input stream over a FILE* of the platform, which it closes. Reads go
// through stdio so that any FILE the platform hands out will do.
class StdioInBuf : public std::streambuf {
public:
    explicit StdioInBuf(FILE* file) : file_(file) {}
    ~StdioInBuf() override { std::fclose(file_); }

protected:
    int_type underflow() override
    {
        if (gptr() < egptr()) return traits_type::to_int_type(*gptr());
        size_t n = std::fread(buffer_, 1, sizeof buffer_, file_);
        if (n == 0) return traits_type::eof();
        setg(buffer_, buffer_, buffer_ + n);
        return traits_type::to_int_type(*gptr());
    }

private:
    FILE* file_;
    char buffer_[1024];
};

class StdioInStream : public std::istream {
public:
    explicit StdioInStream(FILE* file) : std::istream(nullptr), buf_(file) { rdbuf(&buf_); }

private:
    StdioInBuf buf_;
};

} // namespace

pci_device* pci_device_from_string(char* line, int len)
{
    if (!line || len <= 0) return nullptr;
    uint32_t location, id;
    const char* p = tavscan::scanUnsigned32(line, 16, &location);
    if (!p || !tavscan::scanUnsigned32(p, 16, &id)) return nullptr;
    auto* node = static_cast<pci_device*>(std::malloc(sizeof(pci_device)));
    if (!node) return nullptr;
    node->location = location;
    node->pci_id = id;
    node->next = nullptr;
    return node;
}

pci_device* load_pci_list(const char* path)
{
    if (!path) return nullptr;
    FILE* file = plat::fopen(path, "r");
    if (!file) return nullptr;
    pci_device* head = nullptr;
    pci_device** tail = &head;
    char line[256];
    while (std::fgets(line, sizeof line, file)) {
        pci_device* node = pci_device_from_string(line, static_cast<int>(std::strlen(line)));
        if (!node) continue;
        *tail = node;
        tail = &node->next;
    }
    std::fclose(file);
    return head;
}

void free_pci_list(pci_device* list)
{
    while (list) {
        pci_device* next = list->next;
        std::free(list);
        list = next;
    }
}

int hwid_matchDevice(const pci_device* list, unsigned int id, unsigned int location)
{
    for (; list; list = list->next)
        if (list->pci_id == id && (location == kAnyLocation || list->location == location)) return 1;
    return 0;
}

// Items are "id" or "id-location" in hex, split at ",". An item that does
// not scan does not hold, so an empty list matches nothing.
int hwid_findInList(const pci_device* list, char* items)
{
    if (!items) return 0;
    std::string copy(items);
    int all = 1;
    size_t start = 0;
    while (true) {
        size_t comma = copy.find(',', start);
        std::string item = copy.substr(start, comma == std::string::npos ? std::string::npos : comma - start);
        uint32_t id, location = kAnyLocation;
        const char* p = tavscan::scanUnsigned32(item.c_str(), 16, &id);
        if (!p) {
            all = 0;
        } else {
            if (*p == '-') tavscan::scanUnsigned32(p + 1, 16, &location);
            if (!hwid_matchDevice(list, id, location)) all = 0;
        }
        if (comma == std::string::npos) break;
        start = comma + 1;
    }
    return all;
}

hwid_model_id* hwid_getModelInfo(const char* file)
{
    pci_device* list = load_pci_list(HWID_LOCATION_PROC);
    if (!list) return nullptr;
    FILE* table = plat::fopen(file ? file : HWID_LOCATION_CONFIG, "r");
    if (!table) {
        free_pci_list(list);
        return nullptr;
    }
    hwid_model_id* model = nullptr;
    char line[1024];
    while (std::fgets(line, sizeof line, table)) {
        if (std::strchr(line, '#')) continue;
        char* fields[4];
        char* p = line;
        int n = 0;
        for (; n < 3; ++n) {
            char* colon = std::strchr(p, ':');
            if (!colon) break;
            *colon = '\0';
            fields[n] = p;
            p = colon + 1;
        }
        if (n < 3) continue;
        fields[3] = p;
        if (!hwid_findInList(list, fields[3])) continue;

        model = static_cast<hwid_model_id*>(std::malloc(sizeof(hwid_model_id)));
        if (!model) break;
        model->pName = strdup(fields[0]);
        model->pConfigName = strdup(fields[1]);
        if (!model->pName || !model->pConfigName) {
            std::free(model->pName);
            std::free(model->pConfigName);
            std::free(model);
            model = nullptr;
            break;
        }
        uint32_t id = 0;
        tavscan::scanUnsigned32(fields[2], 10, &id);
        model->id = id;
        break;
    }
    std::fclose(table);
    free_pci_list(list);
    return model;
}

void hwid_freeModelInfo(hwid_model_id* info)
{
    if (!info) return;
    std::free(info->pName);
    {
        std::lock_guard<std::mutex> hold(retainedLock);
        retainedNames().push_back(info->pConfigName);
    }
    std::free(info);
}

namespace {

// Copies one text field of the model found, or "UNKNOWN"; 0 or -1.
int copyModelField(char* file, char* name, unsigned int len, char* hwid_model_id::*field)
{
    hwid_model_id* model = hwid_getModelInfo(file);
    std::strncpy(name, model ? model->*field : "UNKNOWN", len);
    int result = model ? 0 : -1;
    hwid_freeModelInfo(model);
    return result;
}

} // namespace

int hwid_getModelName(char* file, char* name, unsigned int len)
{
    TAV_ASSERT(name);
    TAV_ASSERT(len);
    return copyModelField(file, name, len, &hwid_model_id::pName);
}

int hwid_getModelConfigName(char* file, char* name, unsigned int len)
{
    TAV_ASSERT(name);
    TAV_ASSERT(len);
    return copyModelField(file, name, len, &hwid_model_id::pConfigName);
}

int hwid_getModelId(const char* file)
{
    hwid_model_id* model = hwid_getModelInfo(file);
    int id = model ? static_cast<int>(model->id) : 0;
    hwid_freeModelInfo(model);
    return id;
}

int hwid_getConfigsLocation(char* location, unsigned int len)
{
    TAV_ASSERT(location);
    TAV_ASSERT(len);
    char name[256];
    int result = hwid_getModelConfigName(nullptr, name, sizeof name - 1);
    name[sizeof name - 1] = '\0';
    std::snprintf(location, len, kModelDirFormat, name);
    return result;
}

int hwid_getCommonConfigsLocation(char* location, unsigned int len)
{
    TAV_ASSERT(location);
    TAV_ASSERT(len);
    std::snprintf(location, len, "%s", kCommonDir);
    return 0;
}

int hwid_TestFile(char* pPathAndFile, unsigned int maxlen, const char* pFileName)
{
    TAV_ASSERT(pPathAndFile);
    TAV_ASSERT(pFileName);
    if (std::strlen(pPathAndFile) + std::strlen(pFileName) + 1 > maxlen) return -1;
    std::strcat(pPathAndFile, pFileName);
    struct stat st;
    return plat::stat(pPathAndFile, &st);
}

int hwid_getConfigFileWithPath(char* pPathAndFile, unsigned int maxlen, const char* pFileName)
{
    TAV_ASSERT(pPathAndFile);
    TAV_ASSERT(maxlen);
    TAV_ASSERT(pFileName);
    // An unknown model does not look in the common directory either.
    if (hwid_getConfigsLocation(pPathAndFile, maxlen) != 0) return -1;
    if (hwid_TestFile(pPathAndFile, maxlen, pFileName) == 0) return 0;
    hwid_getCommonConfigsLocation(pPathAndFile, maxlen);
    if (hwid_TestFile(pPathAndFile, maxlen, pFileName) == 0) return 1;
    return -1;
}

int hwid_getConfigFileWithDefaultPath(char* pPathAndFile, unsigned int maxlen, const char* pFileName)
{
    TAV_ASSERT(pPathAndFile);
    TAV_ASSERT(maxlen);
    TAV_ASSERT(pFileName);
    hwid_getCommonConfigsLocation(pPathAndFile, maxlen);
    return hwid_TestFile(pPathAndFile, maxlen, pFileName) == 0 ? 1 : -1;
}

int hwid_getFeatureSettingDefaultFrom(const char* pFileName, const char* pFeature, const char* pKey, char* pValue,
                                      unsigned int len, const char* deflt)
{
    TAV_ASSERT(pFileName);
    TAV_ASSERT(pFeature);
    TAV_ASSERT(pKey);
    TAV_ASSERT(pValue);
    int result = -1;
    if (deflt) {
        // No forced terminator here, as before.
        std::strncpy(pValue, deflt, len);
        result = 1;
    }
    URegFile file;
    if (!file.Open(pFileName)) return result;
    if (!file.GoTo(pFeature)) return result;

    char text[URegFile::kMaxValue + 1];
    bool have = false;
    if (deflt) {
        file.getValue(pKey, text, deflt, 0);
        have = true;
    } else if (file.getValue(pKey, text, 0)) {
        result = 0;
        have = true;
    }
    if (have && len > 0) {
        std::strncpy(pValue, text, len);
        pValue[len - 1] = '\0';
    }
    return result;
}

int hwid_getFeatureSettingDefault(const char* pFeature, const char* pKey, char* pValue, unsigned int len,
                                  const char* deflt)
{
    TAV_ASSERT(pFeature);
    TAV_ASSERT(pKey);
    TAV_ASSERT(pValue);
    char path[1024] = "";
    int result = -1;
    if (hwid_getConfigFileWithPath(path, sizeof path, kFeatureFile) >= 0)
        result = hwid_getFeatureSettingDefaultFrom(path, pFeature, pKey, pValue, len, deflt);
    if (result >= 0) return result;
    path[0] = '\0';
    if (hwid_getConfigFileWithDefaultPath(path, sizeof path, kFeatureFile) < 0) return result;
    std::printf("Notice: Loaded Setting for %s:%s from common config location.\n", pFeature, pKey);
    std::fflush(stdout);
    return hwid_getFeatureSettingDefaultFrom(path, pFeature, pKey, pValue, len, deflt);
}

int hwid_getFeatureSetting(const char* pFeature, const char* pKey, char* pValue, unsigned int len)
{
    return hwid_getFeatureSettingDefault(pFeature, pKey, pValue, len, nullptr);
}

int hwid_getFeatureSettingDefaultAsInt(const char* pFeature, const char* pKey, int* pValue, int deflt)
{
    TAV_ASSERT(pValue);
    char text[256];
    int32_t n;
    if (hwid_getFeatureSetting(pFeature, pKey, text, 255) == 0 && tavscan::scanInt32(text, &n)) {
        *pValue = n;
        return 0;
    }
    *pValue = deflt;
    return 1;
}

void hwid_getCpuSerialNumber(char* buffer, int len)
{
    if (!buffer || len <= 0) return;
    unsigned int signature = 0, high = 0, low = 0;
#if defined(__i386__) || defined(__x86_64__)
    unsigned int a, b, c, d;
    __cpuid(1, a, b, c, d);
    signature = a;
    __cpuid(3, a, b, c, d);
    high = d;
    low = c;
#endif
    std::snprintf(buffer, static_cast<size_t>(len), "%08X%08X%08X", signature, high, low);
}

hwidResource::hwidResource() : hwidFile(nullptr) {}

hwidResource::~hwidResource() { delete hwidFile; }

int hwidResource::Find(std::string objectClass, std::string objectName)
{
    sObjectClass = std::move(objectClass);
    sObjectName = std::move(objectName);
    delete hwidFile;
    hwidFile = nullptr;
    if (FILE* file = plat::fopen(kResourceFile, "r")) hwidFile = new StdioInStream(file);
    return Next();
}

int hwidResource::Next()
{
    if (!hwidFile) return -1;
    char buffer[1024];
    while (true) {
        hwidFile->getline(buffer, sizeof buffer);
        if (hwidFile->fail()) {
            // A line longer than the buffer comes in pieces, as from fgets.
            if (hwidFile->bad() || hwidFile->eof() || hwidFile->gcount() == 0) return -1;
            hwidFile->clear();
        }
        std::string line(buffer);
        size_t colon = line.find(':');
        if (colon == 0 || colon == std::string::npos) continue; // no class
        std::string objectClass = line.substr(0, colon);
        line.erase(0, colon + 1);
        colon = line.find(':');
        if (colon == 0 || line.empty()) continue; // no name
        std::string objectName = line.substr(0, colon);
        line.erase(0, colon == std::string::npos ? line.size() : colon + 1);
        if (objectClass == sObjectClass && objectName == sObjectName) {
            sObjectInfo = line;
            return 0;
        }
    }
}

int hwidResource::GetNResources(std::string objectClass, std::string objectName)
{
    int count = 0;
    for (int found = Find(std::move(objectClass), std::move(objectName)); found == 0; found = Next()) ++count;
    return count;
}
