// The message texts of the controller API: built-in tables by source and
// code, optional message files per language, and a small ring of formatted
// results.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

// Message sources.
enum : uint32_t {
    TW_SOURCE_SOURCE = 1,
    TW_SOURCE_SEVERITY = 2,
    TW_SOURCE_CONTROLLER_9000 = 3,
    TW_SOURCE_AEN_9000 = 4,
    TW_SOURCE_DRIVER_9000 = 6,
    TW_SOURCE_OS = 9,
    TW_SOURCE_API = 11,
    TW_SOURCE_TDM = 12,
    TW_SOURCE_CLI = 13,
    TW_SOURCE_CONTROLLER_7000 = 14,
    TW_SOURCE_AEN_7000 = 15,
    TW_SOURCE_DRIVER_7000 = 17,
    TW_SOURCE_TDM_STATIC = 19,
};

// Codes with a built-in text that a controller or driver may report, and
// that the simulated controllers raise. The 7000 send always records
// controller code 1; the 9000 firmware's codes come with its own text.
enum : uint32_t {
    TW_CONTROLLER_7000_COMMAND_FAILED = 0x0001,

    TW_CONTROLLER_9000_BAD_OPCODE = 0x0001,
    TW_CONTROLLER_9000_BAD_COMMAND_SIZE = 0x0002,
    TW_CONTROLLER_9000_BAD_UNIT = 0x0003,
    TW_CONTROLLER_9000_BAD_TABLE = 0x0004,
    TW_CONTROLLER_9000_BAD_PARAMETER = 0x0005,
    TW_CONTROLLER_9000_BAD_PARAMETER_SIZE = 0x0006,
    TW_CONTROLLER_9000_READ_ONLY = 0x0007,
    TW_CONTROLLER_9000_BAD_VALUE = 0x0008,
    TW_CONTROLLER_9000_BAD_PORT = 0x0009,
    TW_CONTROLLER_9000_NO_BBU = 0x000A,
    TW_CONTROLLER_9000_BAD_HEADER = 0x000B,
    TW_CONTROLLER_9000_BAD_SGL = 0x000C,
    TW_CONTROLLER_9000_TABLE_FLAG = 0x000D,

    TW_DRIVER_9000_LOCK_HELD = 4097,
    TW_DRIVER_9000_TIMEOUT = 4098,
    TW_DRIVER_9000_BAD_LENGTH = 4101,
    TW_DRIVER_9000_RESETTING = 4102,
};

struct tw_message_row {
    uint32_t code;
    const char* text;
};

// Lines of a message file are read into this many bytes; the rest of a
// longer line is dropped, so its text is cut (or, if its closing quote is
// lost, the line is passed over).
constexpr size_t TW_MSG_LINE_SIZE = 512;

class tw_message {
public:
    static constexpr int ring_size = 10;
    static constexpr int language_count = 8;

    tw_message();
    ~tw_message();
    tw_message(const tw_message&) = delete;
    tw_message& operator=(const tw_message&) = delete;

    // The text of a code, formatted with its source and code, or "" when
    // there is none. Each text found takes the next of the ring's 10 slots,
    // freeing the text that stood there: a text stays good while nine more
    // texts are found, and the tenth lookup after it frees it. A miss takes
    // no slot.
    const char* lookup(uint32_t source, uint32_t code, const char* directory, int language);
    // The built-in text of a code, unformatted; "" when the table has none.
    const char* lookup_in_array(uint32_t source, uint32_t code);
    // Copies the text of a message file into buffer (terminated, cut to its
    // size) and gives 1, or gives 0 when the file has no non-empty text.
    int lookup_in_file(char* buffer, size_t buffer_size, uint32_t source, uint32_t code,
                       const char* directory, int language);

private:
    char* m_msg_buffer[ring_size];
    int m_current_buffer;
    // Taken by test-and-set: the well-defined form of a spin on a plain byte.
    std::atomic<unsigned char> m_lookup_lock;
};

// The API's message object (defined with the other globals of the API).
extern tw_message msg;
