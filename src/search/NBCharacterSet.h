// A fixed set of UTF-16 code units, the unit in which search text is cleaned up and split into tokens.
//
// Search text is handled as UTF-16 code units throughout (QString's own unit), and a "character" of a set
// is one code unit: a character outside the Basic Multilingual Plane is two units, and no set used by
// search holds a surrogate, so splitting text at the members of a set never cuts such a character in two.
// The set is a 65536-bit table (8 KiB): membership is one load and one bit test, which keeps the
// per-character loops of normalisation and tokenising cheap. Sets are values: copy them freely; the shared
// ones are built once and then only read, so they need no lock.
#pragma once

#include <QStringView>

#include <array>
#include <cstdint>

class NBCharacterSet {
public:
    // The empty set.
    NBCharacterSet() = default;
    // The set of the code units of `characters` (duplicates count once).
    static NBCharacterSet characterSetWithCharactersInString(QStringView characters);

    // Unicode general category Zs (every space separator, U+0020 and U+00A0 included) and tab.
    static const NBCharacterSet& whitespaceCharacterSet();
    // Unicode general categories Zs, Zl and Zp, plus tab, line feed, vertical tab, form feed, carriage
    // return and U+0085 (next line).
    static const NBCharacterSet& whitespaceAndNewlineCharacterSet();

    bool contains(char16_t unit) const { return (words_[unit >> 6] >> (unit & 63)) & 1u; }
    bool contains(QChar character) const { return contains(character.unicode()); }
    void addCharacter(char16_t unit) { words_[unit >> 6] |= std::uint64_t{1} << (unit & 63); }
    void removeCharacter(char16_t unit) { words_[unit >> 6] &= ~(std::uint64_t{1} << (unit & 63)); }
    void addCharactersInString(QStringView characters);
    void formUnionWithCharacterSet(const NBCharacterSet& other);
    void formIntersectionWithCharacterSet(const NBCharacterSet& other);

    // How many of the code units 0 to 0xFFFF the set holds.
    unsigned count() const;
    bool isEmpty() const { return count() == 0; }
    // True when some unit of `text` is a member.
    bool intersectsString(QStringView text) const;

    bool operator==(const NBCharacterSet& other) const = default;

private:
    std::array<std::uint64_t, 65536 / 64> words_{};
};
