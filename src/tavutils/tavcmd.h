// A bit set of command kinds: what a key permits, or what a command asks.
#pragma once

#include <cstdio>

class TavCmd {
public:
    static const TavCmd NONE;
    static const TavCmd GET;
    static const TavCmd SET;
    static const TavCmd ADD;
    static const TavCmd DEL;
    static const TavCmd COMMIT;
    static const TavCmd REFRESH;
    static const TavCmd CORE;
    static const TavCmd EXEC;
    static const TavCmd LOGIN;
    static const TavCmd COOKIE;

    constexpr TavCmd(unsigned int value = 0) : flags(value) {}

    // Reads a decimal number of at most 511 digits into the flags: 1 when a
    // digit was read, else 0 with the flags unchanged.
    int read(FILE* stream);
    // Prints the flags with "%d".
    void write(FILE* stream) const;

    constexpr TavCmd operator|(TavCmd other) const { return TavCmd(flags | other.flags); }
    constexpr TavCmd operator&(TavCmd other) const { return TavCmd(flags & other.flags); }
    constexpr bool operator==(const TavCmd& other) const = default;
    constexpr bool has(TavCmd bits) const { return (flags & bits.flags) != 0; }

    unsigned int flags;
};

inline constexpr TavCmd TavCmd::NONE{0};
inline constexpr TavCmd TavCmd::GET{1};
inline constexpr TavCmd TavCmd::SET{2};
inline constexpr TavCmd TavCmd::ADD{4};
inline constexpr TavCmd TavCmd::DEL{8};
inline constexpr TavCmd TavCmd::COMMIT{16};
inline constexpr TavCmd TavCmd::REFRESH{32};
inline constexpr TavCmd TavCmd::CORE{64};
inline constexpr TavCmd TavCmd::EXEC{128};
inline constexpr TavCmd TavCmd::LOGIN{256};
inline constexpr TavCmd TavCmd::COOKIE{512};
