// Sets of UTF-16 code units and the two platform whitespace classes, taken from ICU's character data.
#include "search/NBCharacterSet.h"

#include <unicode/uchar.h>

#include <bit>

NBCharacterSet NBCharacterSet::characterSetWithCharactersInString(QStringView characters) {
    NBCharacterSet set;
    set.addCharactersInString(characters);
    return set;
}

namespace {
// Space, line and paragraph separators: the general categories Zs, Zl and Zp.
NBCharacterSet separatorCategoryCharacterSet(bool includeLineAndParagraphSeparators) {
    NBCharacterSet set;
    for (UChar32 codePoint = 0; codePoint <= 0xFFFF; ++codePoint) {
        const auto category = u_charType(codePoint);
        if (category == U_SPACE_SEPARATOR ||
            (includeLineAndParagraphSeparators &&
             (category == U_LINE_SEPARATOR || category == U_PARAGRAPH_SEPARATOR)))
            set.addCharacter(static_cast<char16_t>(codePoint));
    }
    return set;
}
} // namespace

const NBCharacterSet& NBCharacterSet::whitespaceCharacterSet() {
    static const NBCharacterSet set = [] {
        NBCharacterSet whitespace = separatorCategoryCharacterSet(false);
        whitespace.addCharacter(u'\t');
        return whitespace;
    }();
    return set;
}

const NBCharacterSet& NBCharacterSet::whitespaceAndNewlineCharacterSet() {
    static const NBCharacterSet set = [] {
        NBCharacterSet whitespace = separatorCategoryCharacterSet(true);
        whitespace.addCharactersInString(u"\t\n\v\f\r\u0085\u2028\u2029");
        return whitespace;
    }();
    return set;
}

void NBCharacterSet::addCharactersInString(QStringView characters) {
    for (const QChar character : characters)
        addCharacter(character.unicode());
}

void NBCharacterSet::formUnionWithCharacterSet(const NBCharacterSet& other) {
    for (std::size_t index = 0; index < words_.size(); ++index)
        words_[index] |= other.words_[index];
}

void NBCharacterSet::formIntersectionWithCharacterSet(const NBCharacterSet& other) {
    for (std::size_t index = 0; index < words_.size(); ++index)
        words_[index] &= other.words_[index];
}

unsigned NBCharacterSet::count() const {
    unsigned total = 0;
    for (const std::uint64_t word : words_)
        total += static_cast<unsigned>(std::popcount(word));
    return total;
}

bool NBCharacterSet::intersectsString(QStringView text) const {
    for (const QChar character : text)
        if (contains(character))
            return true;
    return false;
}
