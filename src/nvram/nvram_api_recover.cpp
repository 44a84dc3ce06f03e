// Transfers by descriptor, the restore of flash to SDRAM after an auto copy,
// and the programming of the FPGA PROM.
#include <cstring>
#include <sys/mman.h>

#include "nvram/nvram_api.h"
#include "nvram/nvram_api_internal.h"

using namespace nvram_detail;

namespace {

constexpr uint64_t HALT_CHECK_ROUNDS = 100000;
constexpr uint64_t TIMEOUT_ROUNDS = 999999999;  // the time-out is above this many rounds

void dumpBoth(nvram_t handle, const nvramd_t* descr)
{
    dump_nvramd(handle, descr);
    nvram_dump_regs(handle);
}

uint32_t load32(const uint8_t* page, uint32_t offset)
{
    uint32_t word;
    std::memcpy(&word, page + offset, sizeof word);
    return word;
}

} // namespace

nvram_error_t nvram_memcpy(nvram_t handle, nvramd_t* descr_p, uint32_t descr_physical, uint64_t src, uint64_t dst,
                           uint32_t len, nvram_op_t nvop, int abortOrReturn)
{
    nvramd_t descr{};
    descr.op = nvop;
    descr.length = len;
    descr.source_addr = src;
    descr.destination_addr = dst;
    nvram_checksum_descriptor(&descr);
    std::memcpy(descr_p, &descr, sizeof descr);

    nvram_error_t rc = nvram_push_chain(handle, descr_physical);
    if (rc != NVRAM_SUCCESS) return rc;

    // The card sets `complete`; the loop only reads memory.
    std::atomic_ref<uint32_t> complete(descr_p->reserved1_complete);
    uint64_t rounds = 0;
    while (!(complete.load(std::memory_order_acquire) & nvramd_t::COMPLETE)) {
        ++rounds;
        if (rounds % HALT_CHECK_ROUNDS == 0 && !(setup(handle) & NVRAM_SETUP_MICROENGINE_RUN)) {
            dumpBoth(handle, descr_p);
            if (abortOrReturn) {
                logf(handle, "nvram_memcpy: %s", nvram_error_str(NVRAM_MICROENGINE_HALTED));
                std::abort();
            }
            return NVRAM_MICROENGINE_HALTED;
        }
        if (rounds > TIMEOUT_ROUNDS) {
            dumpBoth(handle, descr_p);
            if (abortOrReturn) {
                logf(handle, "nvram_memcpy: %s (%s)", nvram_error_str(NVRAM_DESCR_TIMED_OUT),
                     nvram_transfer_str(nvop));
                std::abort();
            }
            return NVRAM_DESCR_TIMED_OUT;
        }
    }

    // Only the error half of the status counts; warnings are not looked at.
    uint32_t status = std::atomic_ref<uint32_t>(descr_p->status.value).load(std::memory_order_acquire);
    auto error = static_cast<nvram_error_t>(static_cast<int>(status & 0xffff));
    if (error == NVRAM_SUCCESS) return NVRAM_SUCCESS;
    dumpBoth(handle, descr_p);
    if (abortOrReturn) {
        logf(handle, "nvram_memcpy: %s (%s)", nvram_error_str(error), nvram_transfer_str(nvop));
        std::abort();
    }
    return error;
}

nvram_error_t nvram_recover_flash_to_sdram(nvram_t handle)
{
    if (badHandle(handle)) return NVRAM_INVALID_DEVICE;
    uint32_t fpgaMajor = handle->fpga_version >> 16, fpgaMinor = handle->fpga_version & 0xffff;
    if (fpgaMajor != 5) return NVRAM_VERSION_MISMATCH;
    if (handle->mode != NVRAM_MODE_READ_WRITE) return NVRAM_MODE_BAD;
    if (!(setup(handle) & NVRAM_SETUP_WRITE_ENABLE)) return NVRAM_NOT_WRITABLE;
    if (nvram_get_validity(handle) != NVRAM_VALIDITY_FLASH) return NVRAM_VALIDITY_BAD;

    uint32_t sdramPageSize = 0, flashPageSize = 0, sdramPages = 0, flashPages = 0, badMax = 0, validBlocks = 0,
             perBlock = 0;
    const struct {
        int address;
        uint32_t* value;
    } words[] = {
        {NVRAM_EE_SDRAM_PAGE_SIZE, &sdramPageSize}, {NVRAM_EE_FLASH_PAGE_SIZE, &flashPageSize},
        {NVRAM_EE_SDRAM_PAGES, &sdramPages},        {NVRAM_EE_FLASH_PAGES, &flashPages},
        {NVRAM_EE_FLASH_BAD_BLOCK_MAX, &badMax},    {NVRAM_EE_VALID_BLOCKS, &validBlocks},
        {NVRAM_EE_FLASH_PAGES_PER_BLOCK, &perBlock},
    };
    for (const auto& w : words) {
        nvram_error_t rc = nvram_get_eeprom(handle, w.address, w.value);
        if (rc != NVRAM_SUCCESS) return rc;
    }
    if (perBlock == 0) {
        logf(handle, "flash_pages_per_block is zero");
        std::abort();
    }
    uint64_t toRestore = uint64_t{perBlock} * validBlocks;

    // The page layout is fixed: 2048 data bytes (the SDRAM page, which the
    // CRC covers) and the spare bytes up to the CRC word, 2112 in all. A card
    // whose words describe another geometry cannot be read through one host
    // page, so nothing is mapped. The host page is bounded like the SDRAM
    // clear's page, whatever the card says.
    if (sdramPageSize != NVRAM_PAGE_DATA || flashPageSize < NVRAM_PAGE_LAYOUT_SIZE || flashPageSize > 32768) {
        logf(handle, "bogus page sizes sdram:%u flash:%u", sdramPageSize, flashPageSize);
        return NVRAM_MMAP_FAILURE;
    }
    // Blocks beyond either memory are refused before a descriptor points there.
    if (toRestore > sdramPages || toRestore > flashPages) {
        logf(handle, "bogus valid blocks %u of %u pages", validBlocks, perBlock);
        return NVRAM_EXCESSIVE_VALID_BLOCKS;
    }

    void* descrArea = plat::mmap(nullptr, sizeof(nvramd_t), PROT_READ | PROT_WRITE, MAP_SHARED, handle->fd,
                                 NVRAM_MMAP_DESCRIPTOR);
    if (descrArea == MAP_FAILED) return NVRAM_MMAP_FAILURE;
    void* hostArea = plat::mmap(nullptr, flashPageSize, PROT_READ | PROT_WRITE, MAP_SHARED, handle->fd,
                                NVRAM_MMAP_HOST_PAGE);
    if (hostArea == MAP_FAILED) {
        plat::munmap(descrArea, sizeof(nvramd_t));
        return NVRAM_MMAP_FAILURE;
    }
    auto* descr = static_cast<nvramd_t*>(descrArea);
    auto* page = static_cast<uint8_t*>(hostArea);
    uint32_t descrPhysical = load32(static_cast<const uint8_t*>(descrArea), 0);
    uint32_t hostPhysical = load32(page, 0);
    bool eccChecked = (fpgaMajor == 5 && fpgaMinor > 255) || fpgaMajor > 5;

    uint64_t sdramPage = 0, flashPage = 0;
    uint32_t badBlocks = 0, seed = 0;
    bool failedOnce = false;
    nvram_error_t error = NVRAM_SUCCESS;
    auto fail = [&error](nvram_error_t e) {
        if (error == NVRAM_SUCCESS) error = e;
    };

    while (sdramPage < toRestore) {
        // Skipped bad blocks can run the flash out before SDRAM is full.
        if (flashPage >= flashPages) {
            logf(handle, "Flash overrun");
            fail(NVRAM_FLASH_EXCESSIVE_BAD_BLOCKS);
            break;
        }
        uint64_t sdramAddr = sdramPage * sdramPageSize, flashAddr = flashPage * sdramPageSize;
        // A failed transfer ends the process; a push the card refuses comes
        // back and ends the loop.
        nvram_error_t moved = nvram_memcpy(handle, descr, descrPhysical, flashAddr, sdramAddr, flashPageSize,
                                           NVRAM_OP_F2S, ABORT_ON_FAILURE);
        if (moved == NVRAM_SUCCESS)
            moved = nvram_memcpy(handle, descr, descrPhysical, sdramAddr, hostPhysical, flashPageSize, NVRAM_OP_S2H,
                                 ABORT_ON_FAILURE);
        if (moved != NVRAM_SUCCESS) {
            fail(moved);
            break;
        }

        uint32_t mark = load32(page, NVRAM_PAGE_GOOD_MARK);
        if (mark != 0xffffffffu) {
            if (flashPage % perBlock != 0) {
                logf(handle, "bad page found midblock page:0x%x value:0x%08x", static_cast<unsigned>(flashPage), mark);
                fail(NVRAM_FLASH_BAD_PAGE_MIDBLOCK);
                break;
            }
            ++badBlocks;
            flashPage += perBlock;
            if (badBlocks > badMax) {
                logf(handle, "Too many bad pages flash_page:0x%x", static_cast<unsigned>(flashPage));
                fail(NVRAM_FLASH_EXCESSIVE_BAD_BLOCKS);
                break;
            }
            if (flashPage + 1 >= flashPages) {
                logf(handle, "Flash overrun");
                fail(NVRAM_FLASH_EXCESSIVE_BAD_BLOCKS);
                break;
            }
            continue;
        }

        int ecc = 0;
        if (eccChecked) {
            ecc = eccCheck(handle, page);
            if (ecc == 1) {
                // The corrected data goes back to its SDRAM page.
                nvram_error_t moved = nvram_memcpy(handle, descr, descrPhysical, hostPhysical, sdramAddr,
                                                   sdramPageSize, NVRAM_OP_H2S, ABORT_ON_FAILURE);
                if (moved != NVRAM_SUCCESS) {
                    fail(moved);
                    break;
                }
                ecc = 0;
            }
        }
        uint32_t stored = load32(page, NVRAM_PAGE_CRC);
        auto crc = static_cast<uint32_t>(nvram_checksum_data(page, sdramPageSize, NVRAM_CRC_32_ETHERNET, seed));
        if (crc == stored && ecc == 0) {
            seed = stored;
            ++sdramPage;
            ++flashPage;
            // The flag belongs to one page: a good read ends it.
            failedOnce = false;
            continue;
        }

        // The page index less one, as the log has always shown it.
        logf(handle, "FLASH CHECKSUM BAD page:0x%x calculated crc:0x%08x found crc:0x%08x",
             static_cast<unsigned>(sdramPage - 1), crc, stored);
        // Whole lines of eight words; 2112 bytes make 66 of them.
        for (uint32_t at = 0; at + 32 <= flashPageSize; at += 32)
            logf(handle, "%08x%08x%08x%08x%08x%08x%08x%08x", load32(page, at), load32(page, at + 4),
                 load32(page, at + 8), load32(page, at + 12), load32(page, at + 16), load32(page, at + 20),
                 load32(page, at + 24), load32(page, at + 28));
        if (!failedOnce) {
            incrementCounter(handle, NVRAM_EE_FLASH_RECOVER_RETRIED);
            failedOnce = true;
            continue;
        }
        incrementCounter(handle, NVRAM_EE_FLASH_RECOVER_FAILED);
        fail(NVRAM_FLASH_CHECKSUM_BAD);
        failedOnce = false;
        seed = stored;
        ++sdramPage;
        ++flashPage;
    }

    plat::munmap(hostArea, flashPageSize);
    plat::munmap(descrArea, sizeof(nvramd_t));
    nvram_set_validity(handle, error == NVRAM_SUCCESS ? NVRAM_VALIDITY_SDRAM : NVRAM_VALIDITY_INVALID);
    return error;
}

nvram_error_t nvram_program_fpga_prom(nvram_t handle, const char* filename)
{
    if (badHandle(handle)) return NVRAM_INVALID_DEVICE;
    if (handle->mode != NVRAM_MODE_READ_WRITE) return NVRAM_MODE_BAD;
    if (!(setup(handle) & NVRAM_SETUP_WRITE_ENABLE)) return NVRAM_NOT_WRITABLE;
    // Any claim of SDRAM data refuses, and the handle stays open: nothing was
    // done to the card yet.
    if (nvram_get_validity(handle) & NVRAM_VALIDITY_SDRAM) return NVRAM_VALIDITY_BAD;

    setBits(handle, NVRAM_SETUP_PROM_MODE);
    plat::usleep(100);
    int rc = nvram_prom_download(handle, filename);
    if (rc == NVRAM_PROM_VERIFY_FAILED) rc = nvram_prom_download(handle, filename);
    clearBits(handle, NVRAM_SETUP_PROM_MODE);
    plat::usleep(100);

    // Closed whatever the FIFO says: the card comes back as a new one.
    releaseHandle(handle);
    if (rc == 0) return NVRAM_SUCCESS;
    if (rc == 1) return NVRAM_PROM_FILE_ERROR;
    return NVRAM_PROM_VERIFY_FAILED;
}
