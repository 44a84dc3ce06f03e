#include <cstring>
#include <nettle/md2.h>

#include "tavutils/tavdrivesig.h"

void tavSectorHash(const void* sector, uint8_t hash[SECTOR_HASH_SIZE])
{
    md2_ctx ctx;
    md2_init(&ctx);
    md2_update(&ctx, SECTOR_SIZE - SECTOR_HASH_SIZE, static_cast<const uint8_t*>(sector) + SECTOR_HASH_SIZE);
    md2_digest(&ctx, SECTOR_HASH_SIZE, hash);
}

void tavSetSectorHash(void* sector)
{
    uint8_t hash[SECTOR_HASH_SIZE];
    tavSectorHash(sector, hash);
    std::memcpy(sector, hash, SECTOR_HASH_SIZE);
}

bool tavSectorHashValid(const void* sector)
{
    uint8_t hash[SECTOR_HASH_SIZE];
    tavSectorHash(sector, hash);
    return std::memcmp(sector, hash, SECTOR_HASH_SIZE) == 0;
}
