// Message tables and lookups of the controller API.
#include "tw_api/tw_msg_message.h"

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>

#include "platform/platform.h"

namespace {

constexpr uint32_t END = 0xFFFFFFFFu;

const tw_message_row source_text_table[] = {
    {1, "Message source"},
    {2, "Severity"},
    {3, "9000 controller"},
    {4, "9000 controller event"},
    {6, "9000 driver"},
    {9, "Operating system"},
    {11, "Controller API"},
    {12, "Drive manager"},
    {13, "Command line"},
    {14, "7000 controller"},
    {15, "7000 controller event"},
    {17, "7000 driver"},
    {19, "Drive manager text"},
    {END, ""},
};

// Indexed from 1.
const tw_message_row severity_text_table[] = {
    {1, "ERROR"},
    {2, "WARNING"},
    {3, "INFO"},
    {4, "DEBUG"},
    {END, ""},
};

const tw_message_row controller_9000_error_text_table[] = {
    {TW_CONTROLLER_9000_BAD_OPCODE, "Command opcode not recognised"},
    {TW_CONTROLLER_9000_BAD_COMMAND_SIZE, "Command size not accepted"},
    {TW_CONTROLLER_9000_BAD_UNIT, "Unit number out of range"},
    {TW_CONTROLLER_9000_BAD_TABLE, "Parameter table not recognised"},
    {TW_CONTROLLER_9000_BAD_PARAMETER, "Parameter number not recognised"},
    {TW_CONTROLLER_9000_BAD_PARAMETER_SIZE, "Parameter size does not match the table"},
    {TW_CONTROLLER_9000_READ_ONLY, "Parameter cannot be changed"},
    {TW_CONTROLLER_9000_BAD_VALUE, "Value out of range for this parameter"},
    {TW_CONTROLLER_9000_BAD_PORT, "Port number out of range"},
    {TW_CONTROLLER_9000_NO_BBU, "No battery backup unit installed"},
    {TW_CONTROLLER_9000_BAD_HEADER, "Command header not accepted"},
    {TW_CONTROLLER_9000_BAD_SGL, "Scatter list not accepted"},
    {TW_CONTROLLER_9000_TABLE_FLAG, "Parameter table given without its flag bit"},
    {END, ""},
};

const tw_message_row aen_9000_text_table[] = {
    {0x0001, "Controller was reset"},
    {0x0002, "Unit became degraded"},
    {0x0003, "Rebuild finished"},
    {0x0004, "Verify started"},
    {0x0005, "Verify finished"},
    {0x0006, "Battery test finished"},
    {0x0007, "Drive removed from port"},
    {0x0008, "Drive inserted in port"},
    {END, ""},
};

const tw_message_row linux_9000_driver_text_table[] = {
    {TW_DRIVER_9000_LOCK_HELD, "Controller lock held by another caller"},
    {TW_DRIVER_9000_TIMEOUT, "Controller did not answer in time"},
    {TW_DRIVER_9000_BAD_LENGTH, "Command length refused by the driver"},
    {TW_DRIVER_9000_RESETTING, "Controller is being reset"},
    {END, ""},
};

// Empty texts at 4, 14 and 15 stand as they are: a lookup of them misses.
const tw_message_row api_text_table[] = {
    {0, "No error"},
    {1, "No controller"},
    {2, "Feature not supported"},
    {3, "Controller not supported"},
    {4, ""},
    {5, "Invalid driver control code"},
    {6, "Invalid firmware opcode"},
    {7, "Memory allocation failed"},
    {8, "Invalid controller ID"},
    {9, "Invalid unit ID"},
    {10, "Invalid drive ID"},
    {11, "Invalid port ID"},
    {12, "Driver not loaded"},
    {13, "Retrieving unit descriptor"},
    {14, ""},
    {15, ""},
    {16, "Failed to get unit status"},
    {17, "Failed to get percentage complete"},
    {18, "Failed to get drive from unit ID"},
    {19, "Failed to get drive list from unit ID"},
    {20, "Failed to remove drive"},
    {21, "Failed to notify OS of unit change"},
    {22, "Failed to get unit capacity"},
    {23, "Port in use"},
    {24, "Scan invalid port"},
    {25, "Configuration not supported"},
    {26, "Invalid number of drives"},
    {27, "Invalid stripe size"},
    {28, "Drives not from same controller"},
    {29, "Duplicate drive"},
    {30, "Port empty"},
    {31, "One or more of the specified drives belong to another unit"},
    {32, "Drive error"},
    {33, "Invalid configuration"},
    {34, "Failed to get unit ID"},
    {35, "Invalid grouping"},
    {36, "No drives specified"},
    {37, "Can't import multiple drives"},
    {38, "Drives not from same controller"},
    {39, "Port empty"},
    {40, "Drive error"},
    {41, "Drive in use"},
    {42, "Write cache not supported"},
    {43, "No unit"},
    {44, "Unit has no subunits"},
    {45, "Invalid task rate"},
    {46, "Port empty"},
    {47, "Port busy"},
    {48, "Remove operation invalid for unit"},
    {49, "Unit is ok"},
    {50, "Unit is rebuilding"},
    {51, "Unit busy"},
    {52, "Rebuild operation invalid for unit configuration"},
    {53, "Replacement drive configuration is invalid for rebuild operation"},
    {54, "Replacement drive is too small for rebuild operation"},
    {55, "Percentage invalid config"},
    {56, "Can't remove drive from unit during verify operation"},
    {57, "Invalid spinups value"},
    {58, "Invalid stagger time value"},
    {59, "No such unit to delete"},
    {60, "Invalid stripe size for unit configuration"},
    {61, "Drive ID list no unit"},
    {62, "Port empty"},
    {63, "No unit"},
    {64, "Unit is not rebuilding"},
    {65, "Duplicate drives in import unit drive list"},
    {66, "Controller firmware too old for application"},
    {67, "Application too old for controller firmware"},
    {68, "Unit busy"},
    {69, "Failed to remove device node; Are all filesystems unmounted?"},
    {70, "Failed to add device node for new unit"},
    {71, "Need to upgrade controller's driver or firmware"},
    {72, "Invalid verify operation for the given unit mode"},
    {73, "Verify operation invalid for unit configuration"},
    {74, "Controller has no battery backup unit"},
    {75, "Battery backup unit has no battery"},
    {76, "Failed to get unit's initialization information"},
    {77, "Invalid unit configuration for initialization information"},
    {78, "Failed to get unit's task information"},
    {79, "Invalid unit configuration for task information"},
    {80, "Unit configuration is not a mirror"},
    {END, ""},
};

const tw_message_row tdm_text_table[] = {
    {0x0001, "Drive manager started"},
    {0x0002, "Drive manager stopped"},
    {0x0003, "Array rebuild started"},
    {0x0004, "Array rebuild finished"},
    {END, ""},
};

const tw_message_row cli_text_table[] = {
    {0x0001, "Command not recognised"},
    {0x0002, "Missing argument"},
    {0x0003, "Controller not found"},
    {END, ""},
};

const tw_message_row controller_7000_error_text_table[] = {
    {TW_CONTROLLER_7000_COMMAND_FAILED, "Controller refused the command"},
    {END, ""},
};

// Each text begins with its severity digit (1 error to 4 debug), which the
// formatted text carries in front.
const tw_message_row aen_7000_text_table[] = {
    {0x0000, "3Event queue empty"},
    {0x0001, "1Controller was reset"},
    {0x0002, "1Unit became degraded"},
    {0x0003, "3Rebuild finished"},
    {0x0004, "2Rebuild failed"},
    {0x0005, "3Verify finished"},
    {0x0006, "2Drive removed from port"},
    {END, ""},
};

const tw_message_row linux_7000_driver_text_table[] = {
    {END, ""},
};

const tw_message_row tdm_static_text_table[] = {
    {0x0001, "Healthy"},
    {0x0002, "Degraded"},
    {0x0003, "Rebuilding"},
    {0x0004, "Offline"},
    {END, ""},
};

const tw_message_row* table_of(uint32_t source) {
    switch (source) {
    case 1: return source_text_table;
    case 2: return severity_text_table;
    case 3: return controller_9000_error_text_table;
    case 4: return aen_9000_text_table;
    case 6: return linux_9000_driver_text_table;
    case 11: return api_text_table;
    case 12: return tdm_text_table;
    case 13: return cli_text_table;
    case 14: return controller_7000_error_text_table;
    case 15: return aen_7000_text_table;
    case 17: return linux_7000_driver_text_table;
    case 19: return tdm_static_text_table;
    default: return nullptr;
    }
}

const char* const languages[tw_message::language_count] = {"en", "de", "ja", "tzh",
                                                           "szh", "fr", "es", "it"};

// The file prefix of a source, or null for a source that has no files.
const char* file_prefix_of(uint32_t source) {
    if ((source >= 3 && source <= 7) || source == 11 || (source >= 14 && source <= 18))
        return "tw_msg_";
    if (source == 12 || source == 19)
        return "tdm_msg_";
    return nullptr;
}

// Reads one line into line (terminated, without its newline). What does not
// fit is read and dropped. False at the end of the file.
bool read_line(FILE* file, char* line, size_t size) {
    size_t length = 0;
    int c = 0;
    bool any = false;
    while ((c = std::fgetc(file)) != EOF) {
        any = true;
        if (c == '\n')
            break;
        if (length + 1 < size)
            line[length++] = static_cast<char>(c);
    }
    line[length] = '\0';
    return any;
}

int hex_value(char c) {
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    return -1;
}

// Reads "0x" and 1 to 8 hex digits at text, up to the character stop.
// Gives the position behind the digits, or null.
const char* parse_hex(const char* text, char stop, uint32_t* value) {
    if (text[0] != '0' || (text[1] != 'x' && text[1] != 'X'))
        return nullptr;
    const char* p = text + 2;
    uint32_t v = 0;
    int digits = 0;
    for (; hex_value(*p) >= 0; ++p) {
        if (++digits > 8)
            return nullptr;
        v = v * 16 + static_cast<uint32_t>(hex_value(*p));
    }
    if (digits == 0 || *p != stop)
        return nullptr;
    *value = v;
    return p;
}

// A block header "#0x%02X:%d": its source and line count. A negative count
// is taken as 0; a count beyond INT_MAX is held at INT_MAX.
bool parse_header(const char* line, uint32_t* source, long* count) {
    if (line[0] != '#')
        return false;
    const char* p = parse_hex(line + 1, ':', source);
    if (!p)
        return false;
    char* end = nullptr;
    errno = 0;
    long n = std::strtol(p + 1, &end, 10);
    if (end == p + 1)
        return false;
    if (n < 0)
        n = 0;
    if (n > INT_MAX)
        n = INT_MAX;
    *count = n;
    return true;
}

} // namespace

tw_message::tw_message() : m_msg_buffer{}, m_current_buffer(0), m_lookup_lock(0) {}

tw_message::~tw_message() {
    for (char*& buffer : m_msg_buffer) {
        delete[] buffer;
        buffer = nullptr;
    }
}

const char* tw_message::lookup_in_array(uint32_t source, uint32_t code) {
    if (source == TW_SOURCE_OS) {
        if (code > static_cast<uint32_t>(INT_MAX))
            return "";
        const char* text = std::strerror(static_cast<int>(code));
        return text ? text : "";
    }
    if (source == TW_SOURCE_SEVERITY && (code < 1 || code > 4))
        return "";
    const tw_message_row* row = table_of(source);
    if (!row)
        return "";
    for (; row->code != END; ++row) {
        if (row->code == code)
            return row->text;
    }
    return row->text;
}

// A message file is a list of blocks: a header line "#0x%02X:%d" (source,
// number of lines), then that many lines. Blocks of other sources are
// skipped by their count; lines before the first header, or between blocks,
// that are no header are passed over. In the block of the source a line
// 0x%04X:"text" gives the text from its ninth byte to its last double
// quote; a line of another shape, with fewer than two quotes or with an
// empty text is passed over, and the search goes on.
int tw_message::lookup_in_file(char* buffer, size_t buffer_size, uint32_t source,
                               uint32_t code, const char* directory, int language) {
    if (!buffer || buffer_size == 0)
        return 0;
    buffer[0] = '\0';
    if (!directory || language < 0 || language >= language_count)
        return 0;
    const char* prefix = file_prefix_of(source);
    if (!prefix)
        return 0;

    char path[4096];
    int n = std::snprintf(path, sizeof path, "%s/%s%s", directory, prefix, languages[language]);
    if (n < 0 || static_cast<size_t>(n) >= sizeof path)
        return 0;
    FILE* file = plat::fopen(path, "r");
    if (!file)
        return 0;

    char line[TW_MSG_LINE_SIZE];
    int found = 0;
    while (!found && read_line(file, line, sizeof line)) {
        uint32_t block_source = 0;
        long count = 0;
        if (!parse_header(line, &block_source, &count))
            continue;
        if (block_source != source) {
            for (long i = 0; i < count && read_line(file, line, sizeof line); ++i) {
            }
            continue;
        }
        for (long i = 0; i < count && read_line(file, line, sizeof line); ++i) {
            // 0x%04X:" text "
            uint32_t line_code = 0;
            const char* colon = parse_hex(line, ':', &line_code);
            if (!colon || colon != line + 6 || line[7] != '"' || line_code != code)
                continue;
            // The text runs from the ninth byte to the last double quote.
            const char* last = std::strrchr(line, '"');
            if (last <= line + 8)
                continue;
            size_t length = static_cast<size_t>(last - (line + 8));
            if (length >= buffer_size)
                length = buffer_size - 1;
            std::memcpy(buffer, line + 8, length);
            buffer[length] = '\0';
            found = 1;
            break;
        }
    }
    std::fclose(file);
    return found;
}

const char* tw_message::lookup(uint32_t source, uint32_t code, const char* directory,
                               int language) {
    if (source == 0 || source > 19)
        return "";
    while (m_lookup_lock.exchange(1, std::memory_order_acquire) != 0) {
    }

    delete[] m_msg_buffer[m_current_buffer];
    m_msg_buffer[m_current_buffer] = nullptr;

    char file_text[TW_MSG_LINE_SIZE];
    const char* text = "";
    if (language != 0 && lookup_in_file(file_text, sizeof file_text, source, code, directory,
                                         language))
        text = file_text;
    else
        text = lookup_in_array(source, code);

    const char* result = "";
    // An empty text is a miss: the caller gives its not-found form.
    if (text[0] != '\0') {
        size_t size = std::strlen(text) + 32;
        char* buffer = new (std::nothrow) char[size];
        if (buffer) {
            if (source == TW_SOURCE_AEN_7000 && text[0] >= '0' && text[0] <= '9')
                std::snprintf(buffer, size, "%c(0x%02X:0x%04X): %s", text[0], source, code,
                              text + 1);
            else if (source == TW_SOURCE_TDM_STATIC)
                std::snprintf(buffer, size, "%s", text);
            else
                std::snprintf(buffer, size, "(0x%02X:0x%04X): %s", source, code, text);
            m_msg_buffer[m_current_buffer] = buffer;
            m_current_buffer = (m_current_buffer + 1) % ring_size;
            result = buffer;
        }
    }

    m_lookup_lock.store(0, std::memory_order_release);
    return result;
}
