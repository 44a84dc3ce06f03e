#include "tavutils/tavobxinfo.h"

#include <cstdio>
#include <cstring>

#include "hwlib/tavethutils.h"
#include "hwlib/tavhwid.h"
#include "platform/platform.h"

char TavObxInfo::caSerialNumber[256];
char TavObxInfo::caPartnerSerialNumber[256];
char TavObxInfo::caModelName[256];
int TavObxInfo::iModelId;

namespace {
const char* const kSerialFile = "./configs/etc/marrowby/system/.serialnumber";
}

bool TavObxInfo::loadData()
{
    hwid_model_id* model = hwid_getModelInfo(nullptr);
    bool known = model != nullptr;
    if (known) {
        std::snprintf(caModelName, sizeof caModelName, "%.255s", model->pName);
        iModelId = static_cast<int>(model->id);
        hwid_freeModelInfo(model);
    } else {
        std::snprintf(caModelName, sizeof caModelName, "UNKNOWN");
        iModelId = 0;
    }

    caSerialNumber[0] = '\0';
    if (FILE* file = plat::fopen(kSerialFile, "r")) {
        if (std::fgets(caSerialNumber, 255, file)) caSerialNumber[std::strcspn(caSerialNumber, "\n")] = '\0';
        std::fclose(file);
    } else if (eth_getMAC(0, caSerialNumber, sizeof caSerialNumber) != 0) {
        // Not the "UNKNOWN" of the model name: the case differs.
        std::snprintf(caSerialNumber, sizeof caSerialNumber, "Unknown");
    }
    return known;
}

const char* TavObxInfo::getSerialNumber()
{
    if (caSerialNumber[0] == '\0') loadData();
    return caSerialNumber;
}

const char* TavObxInfo::getModelName()
{
    if (caModelName[0] == '\0') loadData();
    return caModelName;
}

int TavObxInfo::getModelId()
{
    if (caModelName[0] == '\0') loadData();
    return iModelId;
}

void TavObxInfo::setPartnerSerialNumber(const char* serial)
{
    std::snprintf(caPartnerSerialNumber, sizeof caPartnerSerialNumber, "%s", serial ? serial : "");
}

const char* TavObxInfo::getPartnerSerialNumber() { return caPartnerSerialNumber; }
