// NBStyledString and NBMutableStyledString: runs of styles over text, editing, and the tag markup (see
// NBStyledString.h for the format).
#include "text/NBStyledString.h"

#include <algorithm>

namespace {

// "&" first, then "<": the order the stored markup has always used.
void appendEscapedMarkupText(QString& out, QStringView text) {
    const QChar* begin = text.data();
    const QChar* end = begin + text.size();
    const QChar* pending = begin;
    for (const QChar* position = begin; position != end; ++position) {
        const char16_t code = position->unicode();
        if (code != u'&' && code != u'<')
            continue;
        out.append(pending, position - pending);
        out.append(code == u'&' ? QStringView(u"&amp;") : QStringView(u"&lt;"));
        pending = position + 1;
    }
    out.append(pending, end - pending);
}

// Replaces "&amp;" by "&", then "&lt;" by "<" in the result, as two passes over the text would.
QString unescapeMarkupText(QStringView text) {
    QString once;
    if (!text.contains(u'&'))
        return text.toString();
    once.reserve(text.size());
    qsizetype position = 0;
    while (position < text.size()) {
        const qsizetype found = text.indexOf(u"&amp;", position);
        if (found < 0) {
            once.append(text.mid(position));
            break;
        }
        once.append(text.mid(position, found - position));
        once.append(u'&');
        position = found + 5;
    }
    if (!once.contains(u"&lt;"))
        return once;
    return once.replace(QStringLiteral("&lt;"), QStringLiteral("<"));
}

} // namespace

NBStyledString::NBStyledString(const QString& string, const NBStyleSet& styles) : string_(string) {
    if (!string_.isEmpty())
        runs_.push_back({0, styles});
}

NBTextRange NBStyledString::clampedRange(NBTextRange range) const {
    const qsizetype location = std::clamp<qsizetype>(range.location, 0, length());
    const qsizetype length = std::clamp<qsizetype>(range.length, 0, this->length() - location);
    return {location, length};
}

std::size_t NBStyledString::runIndexForIndex(qsizetype index) const {
    auto after = std::upper_bound(runs_.begin(), runs_.end(), index,
                                  [](qsizetype value, const StoredRun& run) { return value < run.location; });
    return std::size_t(after - runs_.begin()) - 1;
}

qsizetype NBStyledString::runEnd(std::size_t runIndex) const {
    return runIndex + 1 < runs_.size() ? runs_[runIndex + 1].location : length();
}

NBStyleSet NBStyledString::stylesAtIndex(qsizetype index) const {
    if (index < 0 || index >= length())
        return {};
    return runs_[runIndexForIndex(index)].styles;
}

NBStyleSet NBStyledString::stylesAtIndex(qsizetype index, NBTextRange* longestEffectiveRange,
                                         NBTextRange inRange) const {
    if (index < 0 || index >= length()) {
        if (longestEffectiveRange)
            *longestEffectiveRange = {index, 0};
        return {};
    }
    const std::size_t runIndex = runIndexForIndex(index);
    if (longestEffectiveRange) {
        const NBTextRange limit = clampedRange(inRange);
        const qsizetype start = std::max(runs_[runIndex].location, limit.location);
        const qsizetype end = std::min(runEnd(runIndex), limit.end());
        *longestEffectiveRange = end > start ? NBTextRange{start, end - start} : NBTextRange{index, 0};
    }
    return runs_[runIndex].styles;
}

std::vector<NBStyledString::Run> NBStyledString::runs() const {
    std::vector<Run> result;
    result.reserve(runs_.size());
    for (std::size_t index = 0; index < runs_.size(); ++index)
        result.push_back({runs_[index].location, runEnd(index) - runs_[index].location, runs_[index].styles});
    return result;
}

void NBStyledString::appendRaw(QStringView text, const NBStyleSet& styles) {
    if (text.isEmpty())
        return;
    if (runs_.empty() || runs_.back().styles != styles)
        runs_.push_back({length(), styles});
    string_.append(text);
}

NBStyledString NBStyledString::styledSubstringFromRange(NBTextRange range) const {
    range = clampedRange(range);
    NBStyledString result;
    if (range.length == 0)
        return result;
    result.string_.reserve(range.length);
    for (std::size_t index = runIndexForIndex(range.location); index < runs_.size(); ++index) {
        const qsizetype start = std::max(runs_[index].location, range.location);
        const qsizetype end = std::min(runEnd(index), range.end());
        if (start >= end)
            break;
        result.appendRaw(QStringView(string_).mid(start, end - start), runs_[index].styles);
    }
    return result;
}

NBStyledString NBStyledString::styledStringByAppendingStyledString(const NBStyledString& other) const {
    NBStyledString result = *this;
    for (std::size_t index = 0; index < other.runs_.size(); ++index)
        result.appendRaw(
            QStringView(other.string_)
                .mid(other.runs_[index].location, other.runEnd(index) - other.runs_[index].location),
            other.runs_[index].styles);
    return result;
}

std::size_t NBStyledString::splitRunAt(qsizetype index) {
    const std::size_t runIndex = runIndexForIndex(index);
    if (runs_[runIndex].location == index)
        return runIndex;
    runs_.insert(runs_.begin() + std::ptrdiff_t(runIndex) + 1, StoredRun{index, runs_[runIndex].styles});
    return runIndex + 1;
}

void NBStyledString::normalize() {
    std::vector<StoredRun> merged;
    merged.reserve(runs_.size());
    for (std::size_t index = 0; index < runs_.size(); ++index) {
        if (runEnd(index) <= runs_[index].location)
            continue;
        if (!merged.empty() && merged.back().styles == runs_[index].styles)
            continue;
        merged.push_back(runs_[index]);
    }
    runs_ = std::move(merged);
}

bool NBStyledString::operator==(const NBStyledString& other) const {
    if (string_ != other.string_ || runs_.size() != other.runs_.size())
        return false;
    for (std::size_t index = 0; index < runs_.size(); ++index)
        if (runs_[index].location != other.runs_[index].location ||
            runs_[index].styles != other.runs_[index].styles)
            return false;
    return true;
}

QString NBStyledString::markupString() const {
    QString markup;
    if (string_.isEmpty())
        return markup;
    markup.reserve(string_.size() + qsizetype(runs_.size()) * 12);
    QList<QString> closingTags;
    for (std::size_t index = 0; index < runs_.size(); ++index) {
        closingTags.clear();
        for (const NBStyle& style : runs_[index].styles) {
            const QString tag = style.markupTag();
            if (tag.isEmpty())
                continue;
            markup += u'<';
            markup += style.openingMarkupTag();
            markup += u'>';
            closingTags.append(tag);
        }
        appendEscapedMarkupText(
            markup, QStringView(string_).mid(runs_[index].location, runEnd(index) - runs_[index].location));
        for (auto tag = closingTags.crbegin(); tag != closingTags.crend(); ++tag) {
            markup += u"</";
            markup += *tag;
            markup += u'>';
        }
    }
    return markup;
}

NBStyledString NBStyledString::styledStringFromMarkupString(QStringView markup) {
    NBStyledString result;
    if (markup.isEmpty())
        return result;
    result.string_.reserve(markup.size());
    // The open styles keyed by closing tag, in the order they were opened; the set they make is rebuilt
    // only when they change.
    std::vector<std::pair<QString, NBStyle>> open;
    NBStyleSet openStyles;
    auto rebuildOpenStyles = [&] {
        openStyles = NBStyleSet();
        for (const auto& entry : open)
            openStyles.insert(entry.second);
    };
    const qsizetype size = markup.size();
    qsizetype position = 0;
    while (position < size) {
        qsizetype next = markup.indexOf(u'<', position);
        if (next < 0)
            next = size;
        if (next > position)
            result.appendRaw(unescapeMarkupText(markup.mid(position, next - position)), openStyles);
        position = next;
        qsizetype angleCount = 0;
        while (position < size && markup[position] == u'<') {
            ++angleCount;
            ++position;
        }
        if (angleCount == 0)
            continue;
        if (angleCount > 1)
            result.appendRaw(QString(angleCount - 1, u'<'), openStyles);
        const bool closing = position < size && markup[position] == u'/';
        if (closing)
            ++position;
        qsizetype tagEnd = markup.indexOf(u'>', position);
        const bool hasClosingAngle = tagEnd >= 0;
        if (!hasClosingAngle)
            tagEnd = size;
        const QStringView tag = markup.mid(position, tagEnd - position);
        position = hasClosingAngle ? tagEnd + 1 : size;
        if (closing) {
            auto found =
                std::find_if(open.begin(), open.end(), [&](const auto& entry) { return entry.first == tag; });
            if (found != open.end()) {
                open.erase(found);
                rebuildOpenStyles();
            }
            continue;
        }
        const NBStyle style = NBStyle::styleWithOpeningMarkupTag(tag);
        if (style.isNull()) {
            QString literal;
            literal.reserve(tag.size() + 2);
            literal += u'<';
            literal += tag;
            if (hasClosingAngle)
                literal += u'>';
            result.appendRaw(literal, openStyles);
            continue;
        }
        const QString closingTag = style.markupTag();
        auto found = std::find_if(open.begin(), open.end(),
                                  [&](const auto& entry) { return entry.first == closingTag; });
        if (found != open.end())
            found->second = style;
        else
            open.emplace_back(closingTag, style);
        rebuildOpenStyles();
    }
    return result;
}

template <typename Change> void NBMutableStyledString::changeStyles(NBTextRange range, Change change) {
    range = clampedRange(range);
    if (range.length == 0)
        return;
    const std::size_t first = range.location > 0 ? splitRunAt(range.location) : 0;
    if (range.end() < length())
        splitRunAt(range.end());
    for (std::size_t index = first; index < runs_.size() && runs_[index].location < range.end(); ++index)
        change(runs_[index].styles);
    normalize();
}

void NBMutableStyledString::addStyle(const NBStyle& style, NBTextRange range) {
    if (style.isNull())
        return;
    changeStyles(range, [&](NBStyleSet& styles) { styles.insert(style); });
}

void NBMutableStyledString::removeStyle(const NBStyle& style, NBTextRange range) {
    changeStyles(range, [&](NBStyleSet& styles) { styles.removeKey(style.attributeKey()); });
}

void NBMutableStyledString::removeTextColorInRange(NBTextRange range) {
    changeStyles(range, [](NBStyleSet& styles) { styles.removeKind(NBStyle::Kind::TextColor); });
}

void NBMutableStyledString::removeBackgroundColorInRange(NBTextRange range) {
    changeStyles(range, [](NBStyleSet& styles) { styles.removeKind(NBStyle::Kind::BackgroundColor); });
}

void NBMutableStyledString::removeAllStylesInRange(NBTextRange range) {
    changeStyles(range, [](NBStyleSet& styles) { styles = NBStyleSet(); });
}

void NBMutableStyledString::setStyles(const NBStyleSet& newStyles, NBTextRange range) {
    changeStyles(range, [&](NBStyleSet& styles) { styles = newStyles; });
}

void NBMutableStyledString::appendString(const QString& string, const NBStyleSet& styles) {
    appendRaw(string, styles);
}

void NBMutableStyledString::appendStyledString(const NBStyledString& other) {
    *this = NBMutableStyledString(styledStringByAppendingStyledString(other));
}

void NBMutableStyledString::replaceCharactersInRange(NBTextRange range, const QString& string) {
    range = clampedRange(range);
    NBStyleSet styles;
    if (range.length > 0)
        styles = stylesAtIndex(range.location);
    else if (range.location > 0)
        styles = stylesAtIndex(range.location - 1);
    else
        styles = stylesAtIndex(0);
    replaceCharactersInRange(range, NBStyledString(string, styles));
}

void NBMutableStyledString::replaceCharactersInRange(NBTextRange range, const NBStyledString& replacement) {
    range = clampedRange(range);
    NBStyledString result = styledSubstringFromRange({0, range.location})
                                .styledStringByAppendingStyledString(replacement)
                                .styledStringByAppendingStyledString(
                                    styledSubstringFromRange({range.end(), length() - range.end()}));
    *this = NBMutableStyledString(result);
}

void NBMutableStyledString::insertStyledString(const NBStyledString& inserted, qsizetype index) {
    replaceCharactersInRange(NBTextRange{index, 0}, inserted);
}

void NBMutableStyledString::deleteCharactersInRange(NBTextRange range) {
    replaceCharactersInRange(range, NBStyledString());
}
