// Small shared value types of the foundation library: object type tags and track tags.
#pragma once
#include <cstdint>
#include <cstring>

// Four bytes read as a number or as up to three characters and a NUL. Every object handed to the
// event loop as user data begins with one, so handlers can tell objects apart by comparing numbers.
union n32_tag {
    uint32_t num;
    char sym4[4];
};
static_assert(sizeof(n32_tag) == 4);

// Eight bytes read as a number or as up to seven characters and a NUL: track tags, log groups.
union n64_tag {
    uint64_t num;
    char sym8[8];
};
static_assert(sizeof(n64_tag) == 8);

// The numeric value of a three-letter tag, as stored in memory, for comparisons in switch labels.
constexpr uint32_t mk_tag32(const char (&s)[4])
{
    return static_cast<uint32_t>(static_cast<unsigned char>(s[0])) |
           static_cast<uint32_t>(static_cast<unsigned char>(s[1])) << 8 |
           static_cast<uint32_t>(static_cast<unsigned char>(s[2])) << 16;
}

inline void set_tag32(n32_tag* t, const char (&s)[4])
{
    t->num = 0;
    std::memcpy(t->sym4, s, 3);
}

// A word that is a number, a pointer or eight characters.
union wordata {
    int64_t num;
    uint64_t unum;
    void* ptr;
    char sym8[8];
};
