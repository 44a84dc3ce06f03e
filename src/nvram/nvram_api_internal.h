// Helpers shared by the units of the NVRAM card library: register access,
// setup bits, logging through the handle, the always-on check.
#pragma once

#include <atomic>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include "nvram/nvram_api.h"
#include "platform/platform.h"

namespace nvram_detail {

// A deliberate stop: on in every build, NDEBUG or not.
[[noreturn]] void checkFailed(const char* expression, const char* file, int line);

#define NVRAM_CHECK(expr) \
    do { \
        if (!(expr)) ::nvram_detail::checkFailed(#expr, __FILE__, __LINE__); \
    } while (0)

inline bool badHandle(nvram_t handle) { return handle == nullptr || !handle->valid; }

// A load of a register: a plain read of the mapping, made atomic so that a
// poll cannot be hoisted out of its loop.
inline uint32_t readReg(nvram_t handle, uint32_t offset)
{
    auto* word = reinterpret_cast<uint32_t*>(handle->base_ptr + offset);
    return std::atomic_ref<uint32_t>(*word).load(std::memory_order_acquire);
}

inline void storeReg(nvram_t handle, uint32_t offset, uint32_t value)
{
    plat::storeRegister(reinterpret_cast<volatile uint32_t*>(handle->base_ptr + offset), value);
}

inline uint32_t setup(nvram_t handle) { return readReg(handle, NVRAM_REG_SETUP); }

// The driver's requests that set or clear bits of the setup register.
nvram_error_t setBits(nvram_t handle, uint32_t bits);
nvram_error_t clearBits(nvram_t handle, uint32_t bits);

// Formats into a buffer and hands the text to the handle's logger.
void logf(nvram_t handle, const char* format, ...) __attribute__((format(printf, 2, 3)));

// NVRAM_VOLTAGE_LOW when the handle checks voltage and the raw reading is
// below its card's limit.
bool voltageLow(nvram_t handle);

// Volts of a raw reading by the card's family.
float scaleVolts(uint32_t cardVersion, uint32_t raw);

// Adds one to the EEPROM word at `address`.
nvram_error_t incrementCounter(nvram_t handle, int address);

// Clears valid, closes, unmaps and frees, whatever the FIFO says.
void releaseHandle(nvram_t handle);

// abortOrReturn at every transfer the library makes: a failed one ends the
// process.
constexpr int ABORT_ON_FAILURE = 256;

} // namespace nvram_detail
