// The search form of a text, its tokens and highlight ranges, and the fixed data they use (see the header).
//
// Speed matters here: every paragraph of every document passes through this code when an index is built,
// and a query is tokenised on every keystroke. Two tables keep the per-character work to a few loads:
//   - The folding of each code point is computed with ICU once, lazily, in blocks of 256 code points, and
//     kept for the life of the process (the first paragraph of a script pays for its block, later ones read
//     it). This covers every plane: emoji, mathematical letters and the rarer ideographs cost a table load
//     like any other character instead of several ICU calls each.
//   - One byte per code unit says what steps 2 to 4 do with it: keep it, delete it, treat it as a
//     separator, or replace it by which value of the table.
#include "search/NBSearchNormalization.h"

#include "search/NBSearchLogging.h"

#include <unicode/normalizer2.h>
#include <unicode/uchar.h>
#include <unicode/unistr.h>
#include <unicode/utf16.h>

#include <atomic>
#include <vector>

namespace {

// The defining lists of the two character sets, in the order in which they are documented.
constexpr char16_t ignoredCharacters[] = u"\u00B1\u02D9\u02DC\u0023\u221E\uF8FF\u00A3\u00A5\u0024\u0025\u2030"
                                         u"\u2031\u00A8\u02C6\u02D8\u00B8\u02DB\u005E\u007E\u221A\u222B\u002A"
                                         u"\u00A7\u25CA\u00AC\u2020\u2021\u00AA\u00BA\u00A9\u00AE\u2122";

constexpr char16_t tokenSeparatorCharacters[] =
    u"\u00B0\u02DA\u002B\u002D\u2013\u2014\u005F\u00AF\u2026\u002C\u002E\u003B\u003A\u0131\u0028\u0029"
    u"\u007B\u007D\u005B\u005D\u003C\u003E\u2264\u2265\u00AB\u00BB\u2039\u203A\u276E\u276F\u003D\u2248"
    u"\u00A6\u007C\u002F\u005C\u0022\u0027\u0060\u00B4\u2018\u2019\u201B\u201C\u201D\u201F\u301D\u301E"
    u"\u201E\u301F\u201A\u00B7\u2022\u003F\u0021\u00BF\u00A1\u2E18\u203D\u00B6\u00F7\u0040";

struct NormalizationEntry {
    char16_t key;
    const char16_t* value;
};

// The table is kept exactly as it has always been, quirks included (ł -> "i", Ø -> "o" but Ö -> "oe",
// ∂ -> " delta ", and upper-case and umlaut rows that folding leaves little to match): changing a value
// would change the words stored in existing indexes.
constexpr NormalizationEntry normalizationEntries[] = {
    {u'\u0026', u" and "},    {u'\uFB00', u"ff"},      {u'\u0192', u"f"},         {u'\uFB01', u"fi"},
    {u'\uFB02', u"fl"},       {u'\uFB03', u"ffi"},     {u'\uFB04', u"ffl"},       {u'\u00C6', u"ae"},
    {u'\u00C4', u"ae"},       {u'\u00D6', u"oe"},      {u'\u00D8', u"o"},         {u'\u00DC', u"ue"},
    {u'\u00E6', u"ae"},       {u'\u00F6', u"oe"},      {u'\u00F8', u"o"},         {u'\u00FC', u"ue"},
    {u'\u00E4', u"ae"},       {u'\u00DF', u"ss"},      {u'\u0142', u"i"},         {u'\u0152', u"oe"},
    {u'\u0153', u"oe"},       {u'\u2211', u" sigma "}, {u'\u0393', u" gamma "},   {u'\u0394', u" delta "},
    {u'\u2206', u" delta "},  {u'\u0398', u" theta "}, {u'\u039B', u" lambda "},  {u'\u039E', u" xi "},
    {u'\u03A0', u" pi "},     {u'\u220F', u" pi "},    {u'\u03A5', u" upsilon "}, {u'\u03A6', u" phi "},
    {u'\u03A8', u" psi "},    {u'\u03A9', u" omega "}, {u'\u03B1', u" alpha "},   {u'\u03B2', u" beta "},
    {u'\u03B3', u" gamma "},  {u'\u03B4', u" delta "}, {u'\u03B5', u" epsilon "}, {u'\u03B6', u" zeta "},
    {u'\u03B7', u" eta "},    {u'\u03B8', u" theta "}, {u'\u03B9', u" iota "},    {u'\u03BA', u" kappa "},
    {u'\u03BB', u" lambda "}, {u'\u03BC', u" mu "},    {u'\u03BD', u" nu "},      {u'\u03BE', u" xi "},
    {u'\u03BF', u" o "},      {u'\u03C0', u" pi "},    {u'\u03C1', u" rho "},     {u'\u03C3', u" sigma "},
    {u'\u2202', u" delta "},  {u'\u03C2', u" sigma "}, {u'\u03C4', u" tau "},     {u'\u03C5', u" upsilon "},
    {u'\u03C6', u" phi "},    {u'\u03C7', u" chi "},   {u'\u03C8', u" psi "},     {u'\u03C9', u" omega "},
    {u'\u03D1', u" theta "},  {u'\u03D5', u" phi "},   {u'\u03D6', u" pi "},      {u'\u00A2', u" cent "},
    {u'\u20AC', u" euro "},
};

QStringView definingString(const char16_t* characters) {
    return QStringView(characters);
}

// ---- Folding (step 1) ----

const icu::Normalizer2& canonicalDecomposition() {
    static const icu::Normalizer2* const normalizer = [] {
        UErrorCode status = U_ZERO_ERROR;
        const icu::Normalizer2* instance = icu::Normalizer2::getNFDInstance(status);
        if (U_FAILURE(status) || instance == nullptr)
            nbRaiseAssertion(lcSearch(), QStringLiteral("ICU's canonical decomposition data is missing"));
        return instance;
    }();
    return *normalizer;
}

const icu::Normalizer2& compatibilityComposition() {
    static const icu::Normalizer2* const normalizer = [] {
        UErrorCode status = U_ZERO_ERROR;
        const icu::Normalizer2* instance = icu::Normalizer2::getNFKCInstance(status);
        if (U_FAILURE(status) || instance == nullptr)
            nbRaiseAssertion(lcSearch(), QStringLiteral("ICU's compatibility decomposition data is missing"));
        return instance;
    }();
    return *normalizer;
}

// Canonical decomposition of `text`, without its non-spacing marks.
icu::UnicodeString decomposedWithoutNonspacingMarks(const icu::UnicodeString& text) {
    UErrorCode status = U_ZERO_ERROR;
    const icu::UnicodeString decomposed = canonicalDecomposition().normalize(text, status);
    if (U_FAILURE(status))
        return text;
    icu::UnicodeString result;
    for (int32_t index = 0; index < decomposed.length();) {
        const UChar32 codePoint = decomposed.char32At(index);
        if (u_charType(codePoint) != U_NON_SPACING_MARK)
            result.append(codePoint);
        index += U16_LENGTH(codePoint);
    }
    return result;
}

// One round of folding of one code point: width, then decomposition without marks, case folding, and
// decomposition without marks again.
icu::UnicodeString foldCodePointOnce(UChar32 codePoint) {
    if (U_IS_SURROGATE(codePoint))
        return icu::UnicodeString(codePoint);
    icu::UnicodeString text;
    const auto decompositionType = u_getIntPropertyValue(codePoint, UCHAR_DECOMPOSITION_TYPE);
    const bool widthVariant = decompositionType == U_DT_WIDE || decompositionType == U_DT_NARROW;
    if (!widthVariant || !compatibilityComposition().getRawDecomposition(codePoint, text))
        text.setTo(codePoint);
    text = decomposedWithoutNonspacingMarks(text);
    text.foldCase(U_FOLD_CASE_DEFAULT);
    return decomposedWithoutNonspacingMarks(text);
}

// The folding of one code point, repeated until every character of the result folds to itself.
icu::UnicodeString foldCodePoint(UChar32 codePoint) {
    icu::UnicodeString folded = foldCodePointOnce(codePoint);
    for (int round = 0; round < 4; ++round) {
        icu::UnicodeString refolded;
        for (int32_t index = 0; index < folded.length();) {
            const UChar32 character = folded.char32At(index);
            refolded.append(foldCodePointOnce(character));
            index += U16_LENGTH(character);
        }
        if (refolded == folded)
            break;
        folded = refolded;
    }
    return folded;
}

// The foldings of 256 consecutive code points. An entry holds the length of the folded text in its top
// byte; a one-unit folding keeps its unit in the low 16 bits, a longer one (always so beyond the Basic
// Multilingual Plane, whose characters take two units) its offset into `units`.
struct FoldingBlock {
    std::array<std::uint32_t, 256> entries{};
    std::vector<char16_t> units;
};

FoldingBlock* makeFoldingBlock(unsigned blockIndex) {
    auto* block = new FoldingBlock;
    for (unsigned low = 0; low < 256; ++low) {
        const auto codePoint = static_cast<UChar32>(blockIndex << 8 | low);
        icu::UnicodeString folded = foldCodePoint(codePoint);
        // The entry has room for 255 units; no folding of one character comes near that (the longest are a
        // handful of units), but a character that did would rather stay unfolded than be cut short.
        if (folded.length() > 255)
            folded.setTo(codePoint);
        const auto length = static_cast<std::uint32_t>(folded.length());
        if (length == 1) {
            block->entries[low] = 1u << 24 | folded.charAt(0);
        } else {
            block->entries[low] = length << 24 | static_cast<std::uint32_t>(block->units.size());
            for (int32_t index = 0; index < folded.length(); ++index)
                block->units.push_back(folded.charAt(index));
        }
    }
    return block;
}

// Blocks are built on first use and published with a compare-and-swap, so readers never take a lock; a
// thread that loses the race drops its copy. Published blocks live as long as the process.
constexpr unsigned foldingBlockCount = 0x110000 >> 8;
std::array<std::atomic<const FoldingBlock*>, foldingBlockCount> foldingBlocks{};

const FoldingBlock& foldingBlock(unsigned blockIndex) {
    const FoldingBlock* block = foldingBlocks[blockIndex].load(std::memory_order_acquire);
    if (block != nullptr)
        return *block;
    const FoldingBlock* fresh = makeFoldingBlock(blockIndex);
    if (foldingBlocks[blockIndex].compare_exchange_strong(block, fresh, std::memory_order_acq_rel))
        return *fresh;
    delete fresh;
    return *block;
}

// Calls `sink` with every unit of the folding of the code point `codePoint`.
template <typename Sink> void foldCodePointInto(char32_t codePoint, Sink& sink) {
    const FoldingBlock& block = foldingBlock(codePoint >> 8);
    const std::uint32_t entry = block.entries[codePoint & 0xFF];
    const std::uint32_t length = entry >> 24;
    if (length == 1) {
        sink(static_cast<char16_t>(entry & 0xFFFF));
        return;
    }
    const char16_t* folded = block.units.data() + (entry & 0xFFFFFF);
    for (std::uint32_t offset = 0; offset < length; ++offset)
        sink(folded[offset]);
}

// Calls `sink` with every unit of the folding of `text`, in order, and `characterEnd` with the index just
// past each character once its units are through (a surrogate pair is one character; an unpaired surrogate
// is a character that gives nothing).
template <typename Sink, typename CharacterEnd>
void foldUnits(QStringView text, Sink&& sink, CharacterEnd&& characterEnd) {
    const char16_t* const units = text.utf16();
    const qsizetype size = text.size();
    for (qsizetype index = 0; index < size; ++index) {
        const char16_t unit = units[index];
        if (unit < 0x80) {
            sink(unit >= u'A' && unit <= u'Z' ? static_cast<char16_t>(unit + (u'a' - u'A')) : unit);
        } else if (!QChar::isSurrogate(unit)) {
            foldCodePointInto(unit, sink);
        } else if (QChar::isHighSurrogate(unit) && index + 1 < size &&
                   QChar::isLowSurrogate(units[index + 1])) {
            foldCodePointInto(QChar::surrogateToUcs4(unit, units[index + 1]), sink);
            ++index;
        }
        characterEnd(index + 1);
    }
}

template <typename Sink> void foldUnits(QStringView text, Sink&& sink) {
    foldUnits(text, sink, [](qsizetype) {});
}

// ---- Steps 2 to 7 ----

enum : std::uint8_t { keptUnit = 0, ignoredUnit = 1, separatorUnit = 2, firstReplacedUnit = 3 };

// What steps 2 to 4 do with each code unit, and the replacement values, indexed by kind minus
// firstReplacedUnit. Deletion comes before separation, and separation before replacement, as in the steps.
struct NormalizationTables {
    std::array<std::uint8_t, 65536> kinds{};
    std::vector<QString> replacements;
};

const NormalizationTables& normalizationTables() {
    static const NormalizationTables* const tables = [] {
        auto* built = new NormalizationTables;
        const auto& dictionary = characterNormalizationDictionary();
        for (auto entry = dictionary.begin(); entry != dictionary.end(); ++entry) {
            if (entry.key().size() != 1 || built->replacements.size() >= 256 - firstReplacedUnit)
                continue;
            built->kinds[entry.key().front().unicode()] =
                static_cast<std::uint8_t>(firstReplacedUnit + built->replacements.size());
            built->replacements.push_back(entry.value());
        }
        const NBCharacterSet& separators = tokenSeparatorCharacterSet();
        const NBCharacterSet& ignored = ignoredCharacterSet();
        for (std::uint32_t unit = 0; unit <= 0xFFFF; ++unit) {
            if (ignored.contains(static_cast<char16_t>(unit)))
                built->kinds[unit] = ignoredUnit;
            else if (separators.contains(static_cast<char16_t>(unit)))
                built->kinds[unit] = separatorUnit;
        }
        return built;
    }();
    return *tables;
}

// Receives the folded units of a text and writes its search form: words of kept units separated by single
// spaces, with none at either end. Writes straight into the result's buffer, growing it by doubling. A writer
// that does not keep its units only counts them (for highlight narrowing, which needs to know where each
// character's units fall in a form it already has).
template <bool keepsUnits> class SearchFormWriterOf {
public:
    SearchFormWriterOf(const NormalizationTables& tables, qsizetype expectedSize) : tables_(tables) {
        if constexpr (keepsUnits) {
            result_.resize(std::max<qsizetype>(expectedSize + 8, 16));
            units_ = result_.data();
            capacity_ = result_.size();
        }
    }

    void operator()(char16_t unit) {
        const std::uint8_t kind = tables_.kinds[unit];
        if (kind == keptUnit) {
            appendWordUnit(unit);
        } else if (kind == separatorUnit) {
            spacePending_ = true;
        } else if (kind >= firstReplacedUnit) {
            for (const QChar replacementUnit : tables_.replacements[kind - firstReplacedUnit]) {
                if (replacementUnit == u' ')
                    spacePending_ = true;
                else
                    appendWordUnit(replacementUnit.unicode());
            }
        }
    }

    QString take() {
        result_.truncate(size_);
        return std::move(result_);
    }

    // How many units have been written so far.
    qsizetype size() const { return size_; }

private:
    void appendWordUnit(char16_t unit) {
        if constexpr (!keepsUnits) {
            size_ += spacePending_ && size_ > 0 ? 2 : 1;
            spacePending_ = false;
            return;
        }
        if (size_ + 2 > capacity_) {
            result_.resize(capacity_ * 2);
            units_ = result_.data();
            capacity_ = result_.size();
        }
        if (spacePending_ && size_ > 0)
            units_[size_++] = u' ';
        spacePending_ = false;
        units_[size_++] = unit;
    }

    const NormalizationTables& tables_;
    QString result_;
    QChar* units_ = nullptr;
    qsizetype size_ = 0;
    qsizetype capacity_ = 0;
    bool spacePending_ = false;
};
using SearchFormWriter = SearchFormWriterOf<true>;
using SearchFormCounter = SearchFormWriterOf<false>;

// The word that a character of tokenCharacterSet stands for: its value in the table without the spaces.
QString tokenWordForCharacter(QChar character) {
    const auto& dictionary = characterNormalizationDictionary();
    const auto entry = dictionary.constFind(QString(character));
    return entry == dictionary.constEnd() ? QString() : entry.value().trimmed();
}

} // namespace

// ---- Fixed data ----

const NBCharacterSet& ignoredCharacterSet() {
    static const NBCharacterSet set = [] {
        const QStringView characters = definingString(ignoredCharacters);
        NBCharacterSet built = NBCharacterSet::characterSetWithCharactersInString(characters);
        checkCharacterSetCount(built, characters);
        return built;
    }();
    return set;
}

const NBCharacterSet& tokenSeparatorCharacterSet() {
    static const NBCharacterSet set = [] {
        const QStringView characters = definingString(tokenSeparatorCharacters);
        NBCharacterSet built = NBCharacterSet::characterSetWithCharactersInString(characters);
        checkCharacterSetCount(built, characters);
        built.formUnionWithCharacterSet(NBCharacterSet::whitespaceAndNewlineCharacterSet());
        checkTokenSeparatorsAreNotIgnored(built, ignoredCharacterSet());
        return built;
    }();
    return set;
}

const QMap<QString, QString>& characterNormalizationDictionary() {
    static const QMap<QString, QString> dictionary = [] {
        QMap<QString, QString> built;
        for (const NormalizationEntry& entry : normalizationEntries)
            built.insert(QString(QChar(entry.key)), QString::fromUtf16(entry.value));
        checkCharacterNormalizationDictionary(built, QStringLiteral("characterNormalizationDictionary"));
        return built;
    }();
    return dictionary;
}

const NBCharacterSet& tokenCharacterSet() {
    static const NBCharacterSet set = [] {
        NBCharacterSet built;
        const auto& dictionary = characterNormalizationDictionary();
        for (auto entry = dictionary.begin(); entry != dictionary.end(); ++entry) {
            if (entry.key().size() == 1 && entry.value().startsWith(u' ') && entry.value().endsWith(u' '))
                built.addCharacter(entry.key().front().unicode());
        }
        return built;
    }();
    return set;
}

unsigned countOfCharacterSet(const NBCharacterSet& set) {
    return set.count();
}

// ---- Consistency checks ----

bool checkCharacterSetCount(const NBCharacterSet& set, QStringView definingCharacters) {
    const unsigned setCount = countOfCharacterSet(set);
    if (setCount == static_cast<unsigned>(definingCharacters.size()))
        return true;
    nbRaiseAssertion(lcSearch(),
                     nbFormat("character set has %@ characters, but string has %@ characters",
                              QString::number(setCount), QString::number(definingCharacters.size())));
    return false;
}

bool checkTokenSeparatorsAreNotIgnored(const NBCharacterSet& tokenSeparators, const NBCharacterSet& ignored) {
    NBCharacterSet common = tokenSeparators;
    common.formIntersectionWithCharacterSet(ignored);
    const unsigned commonCount = countOfCharacterSet(common);
    if (commonCount == 0)
        return true;
    nbRaiseAssertion(lcSearch(),
                     nbFormat("token separator character set should not have characters in common with "
                              "ignored set but it has %@ character(s) in common",
                              QString::number(commonCount)));
    return false;
}

bool checkCharacterNormalizationDictionary(const QMap<QString, QString>& dictionary,
                                           const QString& operationName) {
    const NBCharacterSet& whitespace = NBCharacterSet::whitespaceAndNewlineCharacterSet();
    bool valid = true;
    const auto fail = [&](const char* message, const QString& key, const QString& value) {
        nbRaiseAssertion(lcSearch(), nbFormat(message, operationName, key, value));
        valid = false;
    };
    for (auto entry = dictionary.begin(); entry != dictionary.end(); ++entry) {
        const QString& key = entry.key();
        const QString& value = entry.value();
        if (whitespace.intersectsString(key))
            fail("Whitespace characters not allowed in key string in %@: %@ -> %@", key, value);
        if (value.startsWith(u' ')) {
            if (value.size() < 3 || !value.endsWith(u' '))
                fail("Space characters only allowed if surrounding value string in %@: %@ -> %@", key, value);
            if (value.size() > 2 &&
                whitespace.intersectsString(QStringView(value).sliced(1, value.size() - 2)))
                fail("Whitespace characters not allowed within value string in %@: %@ -> %@", key, value);
        } else if (whitespace.intersectsString(value)) {
            fail("Whitespace characters not allowed in value string in %@: %@ -> %@", key, value);
        }
    }
    return valid;
}

// ---- Normalisation ----

QString foldedStringForSearch(QStringView text) {
    QString folded;
    folded.reserve(text.size());
    foldUnits(text, [&folded](char16_t unit) { folded.append(QChar(unit)); });
    return folded;
}

QString normalizedStringForSearch(QStringView text) {
    SearchFormWriter writer(normalizationTables(), text.size());
    foldUnits(text, writer);
    return writer.take();
}

void addNormalizedSearchTokens(QStringView text, QStringList& tokens,
                               QList<NBTextRange>& rangesInOriginalString) {
    const NBCharacterSet& separators = tokenSeparatorCharacterSet();
    const NBCharacterSet& tokenCharacters = tokenCharacterSet();
    const qsizetype size = text.size();
    const auto addPiece = [&](qsizetype location, qsizetype length) {
        tokens.append(normalizedStringForSearch(text.sliced(location, length)));
        rangesInOriginalString.append(NBTextRange{location, length});
    };
    qsizetype pieceStart = 0;
    for (qsizetype index = 0; index <= size; ++index) {
        if (index == size || separators.contains(text[index])) {
            // The part that this separator (or the end of the text) closes; an empty part adds nothing.
            if (index > pieceStart)
                addPiece(pieceStart, index - pieceStart);
            pieceStart = index + 1;
        } else if (tokenCharacters.contains(text[index])) {
            if (index > pieceStart)
                addPiece(pieceStart, index - pieceStart);
            tokens.append(tokenWordForCharacter(text[index]));
            rangesInOriginalString.append(NBTextRange{index, 1});
            pieceStart = index + 1;
        }
    }
}

// ---- Highlight narrowing ----
//
// A hit in a word is narrowed by two searches: the start moves forward, one character at a time, while the
// search form of the rest of the word still begins with the query token; then the end moves back while the
// search form of what is left still does. Normalising every candidate stretch afresh costs the square of the
// word's length, and a notebook holds "words" of many thousands of letters (DNA and protein sequences). Both
// searches are answered instead from the search form of the whole word (the token itself):
//
//   - The writer only ever appends, and a stretch of characters that starts fresh writes exactly the units
//     that the whole word's writer writes for those characters, less the one space it may put before the
//     first of them. So the search form of the rest of the word from character j is the whole form from
//     the first unit written for j or a later character (skipping such a space), and the search form of the
//     word cut after character k is the whole form up to the units written up to k, read from the same
//     place.
//   - Where the whole form holds the query token is found once, by a linear string search.
//
// One more pass over the word counts the units written for each character. The start moves forward while
// the form from the next character's place holds the token there, and the end is the first character after
// which enough units have been written to cover the token: the same ranges the two searches give, in time
// linear in the word's length.
namespace {

// Whether `text` holds `pattern` at each offset (one entry per offset, and one for the end): the
// Knuth-Morris-Pratt search, linear in both lengths.
std::vector<bool> offsetsHoldingPattern(QStringView text, QStringView pattern) {
    std::vector<bool> holds(std::size_t(text.size()) + 1, false);
    const qsizetype patternSize = pattern.size();
    if (patternSize == 0 || patternSize > text.size())
        return holds;
    // border[i]: the length of the longest proper prefix of pattern[0..i] that is also its suffix.
    std::vector<qsizetype> border(std::size_t(patternSize), 0);
    for (qsizetype index = 1, length = 0; index < patternSize; ++index) {
        while (length > 0 && pattern[index] != pattern[length])
            length = border[std::size_t(length - 1)];
        if (pattern[index] == pattern[length])
            ++length;
        border[std::size_t(index)] = length;
    }
    for (qsizetype index = 0, matched = 0; index < text.size(); ++index) {
        while (matched > 0 && text[index] != pattern[matched])
            matched = border[std::size_t(matched - 1)];
        if (text[index] == pattern[matched])
            ++matched;
        if (matched == patternSize) {
            holds[std::size_t(index + 1 - patternSize)] = true;
            matched = border[std::size_t(matched - 1)];
        }
    }
    return holds;
}

// The part of the token at `tokenRange` of `text`, whose search form `token` begins with `searchToken`, to
// highlight for it.
NBTextRange narrowedHighlight(QStringView text, const NBTextRange& tokenRange, const QString& token,
                              const QString& searchToken) {
    const QStringView word = text.sliced(tokenRange.location, tokenRange.length);
    const std::vector<bool> holdsToken = offsetsHoldingPattern(token, searchToken);
    // Where the search form of the rest of the word begins in `token`, when the characters before it wrote
    // `writtenBefore` units.
    const auto formStart = [&](qsizetype writtenBefore) {
        return writtenBefore < token.size() && token[writtenBefore] == u' ' ? writtenBefore + 1
                                                                            : writtenBefore;
    };
    SearchFormCounter counter(normalizationTables(), 0);
    bool startFound = false;
    bool endFound = false;
    qsizetype start = 0;
    qsizetype end = word.size();
    qsizetype covered = 0;
    qsizetype writtenBeforeStart = 0;
    foldUnits(word, counter, [&](qsizetype characterEnd) {
        if (endFound)
            return;
        if (!startFound) {
            // The character just read begins at `start`: move past it when the rest still matches.
            if (characterEnd < word.size() && holdsToken[std::size_t(formStart(counter.size()))]) {
                start = characterEnd;
                writtenBeforeStart = counter.size();
                return;
            }
            startFound = true;
            covered = formStart(writtenBeforeStart) + searchToken.size();
        }
        if (counter.size() >= covered) {
            end = characterEnd;
            endFound = true;
        }
    });
    return NBTextRange{tokenRange.location + start, end - start};
}

} // namespace

QList<NBTextRange> rangesForSearchTokens(QStringView text, const QStringList& searchTokens) {
    QStringList tokens;
    QList<NBTextRange> tokenRanges;
    addNormalizedSearchTokens(text, tokens, tokenRanges);
    QList<NBTextRange> ranges;
    for (const QString& searchToken : searchTokens) {
        if (searchToken.isEmpty())
            continue;
        for (qsizetype tokenIndex = 0; tokenIndex < tokens.size(); ++tokenIndex) {
            if (!tokens[tokenIndex].startsWith(searchToken))
                continue;
            ranges.append(narrowedHighlight(text, tokenRanges[tokenIndex], tokens[tokenIndex], searchToken));
        }
    }
    return ranges;
}
