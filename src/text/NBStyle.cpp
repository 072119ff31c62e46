// NBStyle and NBStyleSet: shared styles, tag tables and the colour text of the markup (see NBStyle.h).
#include "text/NBStyle.h"

#include "foundation/NBLogging.h"

#include <algorithm>

namespace {

Q_LOGGING_CATEGORY(lcStyle, "quillon.document.style")

const QString kHyperlinkTagPrefix = QStringLiteral("a href=\"");

struct StyleTables {
    QHash<QString, QString> tagsForNames;
    QHash<QString, QString> namesForTags;
    QHash<QString, NBStyle::Kind> kindsForNames;
};

int hexDigitValue(QChar character) {
    const char16_t code = character.unicode();
    if (code >= u'0' && code <= u'9')
        return code - u'0';
    if (code >= u'a' && code <= u'f')
        return code - u'a' + 10;
    if (code >= u'A' && code <= u'F')
        return code - u'A' + 10;
    return -1;
}

// Markup keeps a hyperlink's address inside its opening tag, which ends at the first ">", so the address is
// escaped the way HTML attribute values are.
QString escapeAddress(const QString& address) {
    QString escaped;
    escaped.reserve(address.size());
    for (QChar character : address) {
        switch (character.unicode()) {
        case u'&':
            escaped += u"&amp;";
            break;
        case u'<':
            escaped += u"&lt;";
            break;
        case u'>':
            escaped += u"&gt;";
            break;
        case u'"':
            escaped += u"&quot;";
            break;
        default:
            escaped += character;
        }
    }
    return escaped;
}

QString unescapeAddress(QStringView escaped) {
    QString address;
    address.reserve(escaped.size());
    for (qsizetype index = 0; index < escaped.size(); ++index) {
        if (escaped[index] == u'&') {
            const QStringView rest = escaped.mid(index);
            struct Entity {
                const char16_t* name;
                qsizetype length;
                char16_t character;
            };
            static const Entity entities[] = {
                {u"&amp;", 5, u'&'}, {u"&lt;", 4, u'<'}, {u"&gt;", 4, u'>'}, {u"&quot;", 6, u'"'}};
            bool replaced = false;
            for (const Entity& entity : entities) {
                if (rest.startsWith(QStringView(entity.name, entity.length))) {
                    address += QChar(entity.character);
                    index += entity.length - 1;
                    replaced = true;
                    break;
                }
            }
            if (replaced)
                continue;
        }
        address += escaped[index];
    }
    return address;
}

NBStyle::Kind kindForKey(const QString& key);

} // namespace

// The tables are built once, on first use, and then shared read-only; their consistency is checked then.
static const StyleTables& tables() {
    static const StyleTables instance = [] {
        StyleTables built;
        struct OnOff {
            const char* key;
            const char* tag;
        };
        const OnOff onOffStyles[] = {
            {NBBoldAttributeName, "b"},          {NBItalicAttributeName, "i"},
            {NBSuperscriptAttributeName, "sup"}, {NBSubscriptAttributeName, "sub"},
            {NBUnderlineAttributeName, "u"},     {NBStrikethroughAttributeName, "del"},
            {NBSmallCapsAttributeName, "sc"},
        };
        const NBStyle::Kind onOffKinds[] = {NBStyle::Kind::Bold,        NBStyle::Kind::Italic,
                                            NBStyle::Kind::Superscript, NBStyle::Kind::Subscript,
                                            NBStyle::Kind::Underline,   NBStyle::Kind::Strikethrough,
                                            NBStyle::Kind::SmallCaps};
        for (std::size_t index = 0; index < std::size(onOffStyles); ++index) {
            const OnOff& entry = onOffStyles[index];
            const QString key = QString::fromLatin1(entry.key);
            built.kindsForNames.insert(key, onOffKinds[index]);
            built.tagsForNames.insert(key, QString::fromLatin1(entry.tag));
        }
        built.kindsForNames.insert(QString::fromLatin1(NBTextColorAttributeName), NBStyle::Kind::TextColor);
        built.kindsForNames.insert(QString::fromLatin1(NBBackgroundColorAttributeName),
                                   NBStyle::Kind::BackgroundColor);
        built.kindsForNames.insert(QString::fromLatin1(NBPopAttributeName), NBStyle::Kind::Pop);
        built.kindsForNames.insert(QString::fromLatin1(NBHyperlinkAttributeName), NBStyle::Kind::Hyperlink);
        built.tagsForNames.insert(QString::fromLatin1(NBTextColorAttributeName), QStringLiteral("c"));
        built.tagsForNames.insert(QString::fromLatin1(NBBackgroundColorAttributeName), QStringLiteral("h"));
        for (auto entry = built.tagsForNames.cbegin(); entry != built.tagsForNames.cend(); ++entry)
            built.namesForTags.insert(entry.value(), entry.key());
        if (built.tagsForNames.size() != 9 || built.namesForTags.size() != 9)
            nbRaiseAssertion(lcStyle(), QStringLiteral("The style tag tables are not one-to-one"));
        return built;
    }();
    return instance;
}

namespace {
NBStyle::Kind kindForKey(const QString& key) {
    return tables().kindsForNames.value(key, NBStyle::Kind::Other);
}
} // namespace

NBStyle::NBStyle(Kind kind, QString key, QVariant value)
    : kind_(kind), key_(std::move(key)), value_(std::move(value)) {}

namespace {
struct SharedInstances {
    NBStyle bold, italic, superscript, subscript, underline, strikethrough, smallCaps;
    NBStyle anyTextColor, anyBackgroundColor, pop, hyperlink;
    QHash<QString, NBStyle> stylesForTags;
};
} // namespace

class NBStyleFactory {
public:
    static NBStyle make(NBStyle::Kind kind, const char* key, QVariant value) {
        return NBStyle(kind, QString::fromLatin1(key), std::move(value));
    }
    static NBStyle make(NBStyle::Kind kind, QString key, QVariant value) {
        return NBStyle(kind, std::move(key), std::move(value));
    }
};

static const SharedInstances& shared() {
    static const SharedInstances instance = [] {
        SharedInstances built;
        built.bold = NBStyleFactory::make(NBStyle::Kind::Bold, NBBoldAttributeName, true);
        built.italic = NBStyleFactory::make(NBStyle::Kind::Italic, NBItalicAttributeName, true);
        built.superscript =
            NBStyleFactory::make(NBStyle::Kind::Superscript, NBSuperscriptAttributeName, true);
        built.subscript = NBStyleFactory::make(NBStyle::Kind::Subscript, NBSubscriptAttributeName, true);
        built.underline = NBStyleFactory::make(NBStyle::Kind::Underline, NBUnderlineAttributeName, true);
        built.strikethrough =
            NBStyleFactory::make(NBStyle::Kind::Strikethrough, NBStrikethroughAttributeName, true);
        built.smallCaps = NBStyleFactory::make(NBStyle::Kind::SmallCaps, NBSmallCapsAttributeName, true);
        built.anyTextColor =
            NBStyleFactory::make(NBStyle::Kind::TextColor, NBTextColorAttributeName, QVariant());
        built.anyBackgroundColor =
            NBStyleFactory::make(NBStyle::Kind::BackgroundColor, NBBackgroundColorAttributeName, QVariant());
        built.pop = NBStyleFactory::make(NBStyle::Kind::Pop, NBPopAttributeName, true);
        built.hyperlink = NBStyleFactory::make(NBStyle::Kind::Hyperlink, NBHyperlinkAttributeName, QString());
        const NBStyle* nine[] = {&built.bold,      &built.italic,       &built.superscript,
                                 &built.subscript, &built.underline,    &built.strikethrough,
                                 &built.smallCaps, &built.anyTextColor, &built.anyBackgroundColor};
        for (const NBStyle* style : nine)
            built.stylesForTags.insert(tables().tagsForNames.value(style->attributeKey()), *style);
        if (built.stylesForTags.size() != 9)
            nbRaiseAssertion(lcStyle(), QStringLiteral("The table of styles for markup tags is incomplete"));
        return built;
    }();
    return instance;
}

const NBStyle& NBStyle::bold() {
    return shared().bold;
}
const NBStyle& NBStyle::italic() {
    return shared().italic;
}
const NBStyle& NBStyle::superscript() {
    return shared().superscript;
}
const NBStyle& NBStyle::subscript() {
    return shared().subscript;
}
const NBStyle& NBStyle::underline() {
    return shared().underline;
}
const NBStyle& NBStyle::strikethrough() {
    return shared().strikethrough;
}
const NBStyle& NBStyle::smallCaps() {
    return shared().smallCaps;
}
const NBStyle& NBStyle::anyTextColor() {
    return shared().anyTextColor;
}
const NBStyle& NBStyle::anyBackgroundColor() {
    return shared().anyBackgroundColor;
}
const NBStyle& NBStyle::pop() {
    return shared().pop;
}
const NBStyle& NBStyle::hyperlink() {
    return shared().hyperlink;
}

const QHash<QString, QString>& NBStyle::markupTagsForStyleNames() {
    return tables().tagsForNames;
}
const QHash<QString, QString>& NBStyle::styleNamesForMarkupTags() {
    return tables().namesForTags;
}
const QHash<QString, NBStyle>& NBStyle::stylesForMarkupTags() {
    return shared().stylesForTags;
}

NBStyle NBStyle::styleWithKey(const QString& key, const QVariant& value) {
    const Kind kind = kindForKey(key);
    const bool isTrue = value.typeId() == QMetaType::Bool && value.toBool();
    switch (kind) {
    case Kind::Bold:
        if (isTrue)
            return bold();
        break;
    case Kind::Italic:
        if (isTrue)
            return italic();
        break;
    case Kind::Superscript:
        if (isTrue)
            return superscript();
        break;
    case Kind::Subscript:
        if (isTrue)
            return subscript();
        break;
    case Kind::Underline:
        if (isTrue)
            return underline();
        break;
    case Kind::Strikethrough:
        if (isTrue)
            return strikethrough();
        break;
    case Kind::SmallCaps:
        if (isTrue)
            return smallCaps();
        break;
    case Kind::Pop:
        if (isTrue)
            return pop();
        break;
    case Kind::TextColor:
        return styleForTextColor(value.value<NBColor>());
    case Kind::BackgroundColor:
        return styleForBackgroundColor(value.value<NBColor>());
    case Kind::Hyperlink:
        // An address, or true for a link whose address is its text.
        if (value.typeId() == QMetaType::QString)
            return styleForHyperlinkURL(value.toString());
        if (isTrue)
            return hyperlink();
        break;
    default:
        break;
    }
    return NBStyle(kind == Kind::None ? Kind::Other : kind, key, value);
}

NBStyle NBStyle::styleForTextColor(NBColor color) {
    if (!color.isValid())
        return anyTextColor();
    return NBStyle(Kind::TextColor, anyTextColor().key_, QVariant::fromValue(color));
}

NBStyle NBStyle::styleForBackgroundColor(NBColor color) {
    if (!color.isValid())
        return anyBackgroundColor();
    return NBStyle(Kind::BackgroundColor, anyBackgroundColor().key_, QVariant::fromValue(color));
}

NBStyle NBStyle::styleForHyperlinkURL(const QString& url) {
    if (url.isEmpty())
        return hyperlink();
    return NBStyle(Kind::Hyperlink, hyperlink().key_, url);
}

NBStyle NBStyle::styleWithOpeningMarkupTag(QStringView tag) {
    // A hyperlink with an address is read before the "#" rule, since addresses may hold a "#".
    if (tag.startsWith(kHyperlinkTagPrefix) && tag.size() > kHyperlinkTagPrefix.size() && tag.endsWith(u'"'))
        return styleForHyperlinkURL(unescapeAddress(
            tag.mid(kHyperlinkTagPrefix.size(), tag.size() - kHyperlinkTagPrefix.size() - 1)));
    const qsizetype hash = tag.indexOf(u'#');
    if (hash >= 0) {
        if (tag.indexOf(u'#', hash + 1) >= 0)
            return NBStyle();
        const QString name = tables().namesForTags.value(tag.left(hash).toString());
        // Only the colour tags carry a value; "#" after another tag makes it unknown and kept as text.
        const Kind kind = kindForKey(name);
        if (kind != Kind::TextColor && kind != Kind::BackgroundColor)
            return NBStyle();
        const std::optional<NBColor> color = colorFromHexString(tag.mid(hash + 1));
        return styleWithKey(name, color ? QVariant::fromValue(*color) : QVariant());
    }
    if (tag == u"pop")
        return pop();
    if (tag == u"a")
        return hyperlink();
    return shared().stylesForTags.value(tag.toString());
}

std::optional<NBColor> NBStyle::colorFromHexString(QStringView text) {
    if (text.startsWith(u'#'))
        text = text.mid(1);
    const qsizetype length = text.size();
    if (length != 1 && length != 2 && length != 3 && length != 4 && length != 6 && length != 8)
        return std::nullopt;
    int digits[8];
    for (qsizetype index = 0; index < length; ++index) {
        digits[index] = hexDigitValue(text[index]);
        if (digits[index] < 0)
            return std::nullopt;
    }
    switch (length) {
    case 1:
        return NBColor(digits[0] * 17, digits[0] * 17, digits[0] * 17);
    case 2: {
        const int grey = digits[0] * 16 + digits[1];
        return NBColor(grey, grey, grey);
    }
    case 3:
        return NBColor(digits[0] * 17, digits[1] * 17, digits[2] * 17);
    case 4:
        return NBColor(digits[0] * 17, digits[1] * 17, digits[2] * 17, digits[3] * 17);
    case 6:
        return NBColor(digits[0] * 16 + digits[1], digits[2] * 16 + digits[3], digits[4] * 16 + digits[5]);
    default:
        return NBColor(digits[0] * 16 + digits[1], digits[2] * 16 + digits[3], digits[4] * 16 + digits[5],
                       digits[6] * 16 + digits[7]);
    }
}

QString NBStyle::hexStringFromColor(NBColor color) {
    if (!color.isValid())
        return QString();
    const QString text = QStringLiteral("%1%2%3")
                             .arg(color.red(), 2, 16, QLatin1Char('0'))
                             .arg(color.green(), 2, 16, QLatin1Char('0'))
                             .arg(color.blue(), 2, 16, QLatin1Char('0'))
                             .toUpper();
    if (color.alpha() == 255)
        return text;
    return text + QStringLiteral("%1").arg(color.alpha(), 2, 16, QLatin1Char('0')).toUpper();
}

NBColor NBStyle::color() const {
    if (!isColorStyle())
        return NBColor();
    return value_.value<NBColor>();
}

QString NBStyle::hyperlinkURL() const {
    return kind_ == Kind::Hyperlink ? value_.toString() : QString();
}

QString NBStyle::markupTag() const {
    switch (kind_) {
    case Kind::Pop:
        return QStringLiteral("pop");
    case Kind::Hyperlink:
        return QStringLiteral("a");
    default:
        return tables().tagsForNames.value(key_);
    }
}

QString NBStyle::openingMarkupTag() const {
    if (isColorStyle())
        return markupTag() + u'#' + hexStringFromColor(color());
    if (kind_ == Kind::Hyperlink && !hyperlinkURL().isEmpty())
        return kHyperlinkTagPrefix + escapeAddress(hyperlinkURL()) + u'"';
    return markupTag();
}

bool NBStyle::matches(const NBStyle& other) const {
    if (*this == other)
        return true;
    return other.isColorStyle() && other.kind_ == kind_ && !other.value_.isValid();
}

bool NBStyle::operator==(const NBStyle& other) const {
    return kind_ == other.kind_ && key_ == other.key_ && value_ == other.value_;
}

size_t qHash(const NBStyle& style, size_t seed) {
    if (style.isColorStyle())
        return qHashMulti(seed, style.attributeKey(), style.color().rgba());
    return qHashMulti(seed, style.attributeKey(), style.attributeValue().toString());
}

NBStyleSet::NBStyleSet(std::initializer_list<NBStyle> styles) {
    for (const NBStyle& style : styles)
        insert(style);
}

bool NBStyleSet::contains(const NBStyle& style) const {
    return std::any_of(styles_.cbegin(), styles_.cend(),
                       [&](const NBStyle& held) { return held.matches(style); });
}

bool NBStyleSet::containsKey(const QString& key) const {
    return !styleForKey(key).isNull();
}

bool NBStyleSet::containsKind(NBStyle::Kind kind) const {
    return !styleOfKind(kind).isNull();
}

NBStyle NBStyleSet::styleForKey(const QString& key) const {
    for (const NBStyle& style : styles_)
        if (style.attributeKey() == key)
            return style;
    return NBStyle();
}

NBStyle NBStyleSet::styleOfKind(NBStyle::Kind kind) const {
    for (const NBStyle& style : styles_)
        if (style.kind() == kind)
            return style;
    return NBStyle();
}

void NBStyleSet::insert(const NBStyle& style) {
    if (style.isNull())
        return;
    auto position =
        std::lower_bound(styles_.begin(), styles_.end(), style, [](const NBStyle& a, const NBStyle& b) {
            return a.attributeKey() < b.attributeKey();
        });
    if (position != styles_.end() && position->attributeKey() == style.attributeKey()) {
        if (*position != style)
            *position = style;
        return;
    }
    styles_.insert(position, style);
}

void NBStyleSet::removeKey(const QString& key) {
    styles_.removeIf([&](const NBStyle& style) { return style.attributeKey() == key; });
}

void NBStyleSet::removeKind(NBStyle::Kind kind) {
    styles_.removeIf([&](const NBStyle& style) { return style.kind() == kind; });
}
