// Hardware identity: which model this box is (worked out at each call by
// matching the kernel's PCI list against the model table), where its
// configuration files lie, what its feature settings say, and which
// resources it has.
#pragma once

#include <istream>
#include <string>

extern const char* HWID_LOCATION_PROC;   // "/proc/bus/pci/devices"
extern const char* HWID_LOCATION_CONFIG; // "/etc/marrowby/hwid.conf"

// From malloc; release with hwid_freeModelInfo.
struct hwid_model_id {
    unsigned int id;
    char* pName;
    char* pConfigName;
};

// One device of the kernel's PCI list; every node from malloc.
struct pci_device {
    unsigned int location;
    unsigned int pci_id;
    pci_device* next;
};

// The model whose line of the table (null: HWID_LOCATION_CONFIG) matches
// first, or null.
hwid_model_id* hwid_getModelInfo(const char* file);
void hwid_freeModelInfo(hwid_model_id* info);

pci_device* load_pci_list(const char* path);
void free_pci_list(pci_device* list);
pci_device* pci_device_from_string(char* line, int len);
int hwid_findInList(const pci_device* list, char* items);
int hwid_matchDevice(const pci_device* list, unsigned int id, unsigned int location);

int hwid_getModelName(char* file, char* name, unsigned int len);
int hwid_getModelConfigName(char* file, char* name, unsigned int len);
int hwid_getModelId(const char* file);

int hwid_getConfigsLocation(char* location, unsigned int len);
int hwid_getCommonConfigsLocation(char* location, unsigned int len);
int hwid_TestFile(char* pathAndFile, unsigned int maxlen, const char* fileName);
int hwid_getConfigFileWithPath(char* pathAndFile, unsigned int maxlen, const char* fileName);
int hwid_getConfigFileWithDefaultPath(char* pathAndFile, unsigned int maxlen, const char* fileName);

int hwid_getFeatureSetting(const char* feature, const char* key, char* value, unsigned int len);
int hwid_getFeatureSettingDefault(const char* feature, const char* key, char* value, unsigned int len,
                                  const char* deflt);
int hwid_getFeatureSettingDefaultFrom(const char* file, const char* feature, const char* key, char* value,
                                      unsigned int len, const char* deflt);
int hwid_getFeatureSettingDefaultAsInt(const char* feature, const char* key, int* value, int deflt);

void hwid_getCpuSerialNumber(char* buffer, int len);

// A cursor over the rows "class:name:information" of hwlist.conf.
class hwidResource {
public:
    hwidResource();
    ~hwidResource();
    hwidResource(const hwidResource&) = delete;
    hwidResource& operator=(const hwidResource&) = delete;

    // The first row of this class and name: 0 with sObjectInfo set, or -1.
    int Find(std::string objectClass, std::string objectName);
    // The next such row, from behind the last one found.
    int Next();
    int GetNResources(std::string objectClass, std::string objectName);

    std::string sObjectClass;
    std::string sObjectName;
    std::string sObjectInfo;
    std::istream* hwidFile;
};
