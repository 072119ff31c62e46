// Styled text as inline Markdown, for export and for text typed or pasted as Markdown.
//
// Syntax (the common one of CommonMark with the Pandoc and GitHub extensions):
//   **bold**   *italic* (also _italic_ and __bold__ when read)   ~~strikethrough~~   ^superscript^
//   ~subscript~   [text](address) or [text](<address with spaces>)   <https://autolink>   `code` (read as
//   its plain text)   \x for any ASCII punctuation x (the character itself)   backslash before a line break
//   (a line break)   character references such as &amp; and &#945;.
// Underline, small capitals, colours and pop have no Markdown form and are not written.
//
// Writing: styles change only where they start or end, so each marker is written once per change: between
// two pieces of text there is at most one "**" and one "*", so a run of n "*" always means n / 2 bold and
// n % 2 italic changes (the same for "~~" and "~"). Text escapes "\", "*", "_", "~", "^", "[", "]", "`", "<"
// and "&", and "#", ">", "-" and "+" at the start of a line, so that it reads back as itself; a line break is
// written as backslash and line break. A hyperlink whose address is its text (the shared hyperlink style) is
// written with that text as its address and reads back as the shared style.
//
// Reading: markers toggle their style; a marker left without a partner at the end (an odd count) is text, as
// is a "[" never followed by "](address)" or a "]" not followed by one. A "_" between two letters or digits
// is text (snake_case). Any text reads as some styled string.
#include "text/NBStyledString.h"

#include <vector>

namespace {

bool isASCIIPunctuation(QChar character) {
    const char16_t code = character.unicode();
    return (code >= 0x21 && code <= 0x2F) || (code >= 0x3A && code <= 0x40) ||
           (code >= 0x5B && code <= 0x60) || (code >= 0x7B && code <= 0x7E);
}

void appendEscapedMarkdown(QString& out, QStringView text, bool atLineStart) {
    for (QChar character : text) {
        const char16_t code = character.unicode();
        switch (code) {
        case u'\\':
        case u'*':
        case u'_':
        case u'~':
        case u'^':
        case u'[':
        case u']':
        case u'`':
        case u'<':
        case u'&':
            out += u'\\';
            out += character;
            break;
        case u'#':
        case u'>':
        case u'-':
        case u'+':
            if (atLineStart)
                out += u'\\';
            out += character;
            break;
        case u'\n':
            out += u"\\\n";
            break;
        default:
            out += character;
        }
        atLineStart = code == u'\n';
    }
}

QString markdownDestination(const QString& address) {
    bool pointy = address.isEmpty();
    for (QChar character : address)
        if (character.isSpace() || character == u'(' || character == u')' || character == u'<' ||
            character == u'>' || character == u'\\' || character.unicode() < 0x20)
            pointy = true;
    if (!pointy)
        return address;
    QString out = QStringLiteral("<");
    for (QChar character : address) {
        if (character == u'<' || character == u'>' || character == u'\\' || character == u'\n')
            out += u'\\';
        out += character;
    }
    out += u'>';
    return out;
}

// Markers of the styles Markdown can show, in the order they open.
struct Marker {
    NBStyle::Kind kind;
    const char16_t* text;
};
const Marker kMarkers[] = {{NBStyle::Kind::Bold, u"**"},
                           {NBStyle::Kind::Italic, u"*"},
                           {NBStyle::Kind::Strikethrough, u"~~"},
                           {NBStyle::Kind::Superscript, u"^"},
                           {NBStyle::Kind::Subscript, u"~"}};

struct Token {
    enum Type { Text, Delimiter, LinkOpen, LinkClose } type;
    QString text;         // Text: the text; Delimiter: the run of marker characters; LinkClose: its source
    QString address;      // LinkClose
    bool matched = false; // LinkOpen and LinkClose that found their partner
    // Delimiter: how many of each change the run holds, and which of them are text because unmatched.
    int strongCount = 0, weakCount = 0;
    bool strongUnmatched = false, weakUnmatched = false;
};

// Reads a link destination after "](" at `position`; returns the position after ")" or -1.
qsizetype readDestination(QStringView text, qsizetype position, QString* address) {
    address->clear();
    if (position < text.size() && text[position] == u'<') {
        for (qsizetype index = position + 1; index < text.size(); ++index) {
            const QChar character = text[index];
            if (character == u'\\' && index + 1 < text.size()) {
                *address += text[++index];
                continue;
            }
            if (character == u'>')
                return index + 1 < text.size() && text[index + 1] == u')' ? index + 2 : -1;
            if (character == u'<')
                return -1;
            *address += character;
        }
        return -1;
    }
    int depth = 0;
    for (qsizetype index = position; index < text.size(); ++index) {
        const QChar character = text[index];
        if (character == u'\\' && index + 1 < text.size() && isASCIIPunctuation(text[index + 1])) {
            *address += text[++index];
            continue;
        }
        if (character.isSpace() || character.unicode() < 0x20)
            return -1;
        if (character == u'(')
            ++depth;
        if (character == u')') {
            if (depth == 0)
                return index + 1;
            --depth;
        }
        *address += character;
    }
    return -1;
}

std::vector<Token> tokenize(QStringView text) {
    std::vector<Token> tokens;
    QString pending;
    auto flush = [&] {
        if (!pending.isEmpty())
            tokens.push_back({Token::Text, pending, {}});
        pending.clear();
    };
    const qsizetype size = text.size();
    qsizetype position = 0;
    while (position < size) {
        const QChar character = text[position];
        const char16_t code = character.unicode();
        if (code == u'\\' && position + 1 < size &&
            (isASCIIPunctuation(text[position + 1]) || text[position + 1] == u'\n')) {
            pending += text[position + 1];
            position += 2;
            continue;
        }
        if (code == u'*' || code == u'~' || code == u'^' || code == u'_') {
            qsizetype end = position;
            while (end < size && text[end] == character)
                ++end;
            const bool intraword = code == u'_' && position > 0 && end < size &&
                                   text[position - 1].isLetterOrNumber() && text[end].isLetterOrNumber();
            if (intraword) {
                pending += text.mid(position, end - position);
            } else {
                flush();
                Token token{Token::Delimiter, text.mid(position, end - position).toString(), {}};
                const int count = int(end - position);
                if (code == u'^') {
                    token.weakCount = count;
                } else {
                    token.strongCount = count / 2;
                    token.weakCount = count % 2;
                }
                tokens.push_back(token);
            }
            position = end;
            continue;
        }
        if (code == u'[') {
            flush();
            tokens.push_back({Token::LinkOpen, QStringLiteral("["), {}});
            ++position;
            continue;
        }
        if (code == u']' && position + 1 < size && text[position + 1] == u'(') {
            QString address;
            const qsizetype end = readDestination(text, position + 2, &address);
            if (end >= 0) {
                flush();
                tokens.push_back({Token::LinkClose, text.mid(position, end - position).toString(), address});
                position = end;
                continue;
            }
        }
        if (code == u'<') {
            // An autolink: a scheme, ":", and no spaces up to ">".
            const qsizetype end = text.indexOf(u'>', position + 1);
            const QStringView inside = end < 0 ? QStringView() : text.mid(position + 1, end - position - 1);
            const qsizetype colon = inside.indexOf(u':');
            bool autolink = colon >= 2 && colon <= 32 && inside[0].isLetter() && inside[0].unicode() < 128;
            for (qsizetype index = 0; autolink && index < inside.size(); ++index)
                if (inside[index].isSpace() || inside[index] == u'<' || inside[index].unicode() < 0x20)
                    autolink = false;
            for (qsizetype index = 0; autolink && index < colon; ++index)
                if (!(inside[index].unicode() < 128 &&
                      (inside[index].isLetterOrNumber() || inside[index] == u'+' || inside[index] == u'.' ||
                       inside[index] == u'-')))
                    autolink = false;
            if (autolink) {
                flush();
                tokens.push_back({Token::LinkOpen, QStringLiteral("<"), {}});
                tokens.push_back({Token::Text, inside.toString(), {}});
                tokens.push_back({Token::LinkClose, QStringLiteral(">"), inside.toString()});
                position = end + 1;
                continue;
            }
        }
        if (code == u'`') {
            qsizetype end = position;
            while (end < size && text[end] == u'`')
                ++end;
            const QStringView fence = text.mid(position, end - position);
            const qsizetype close = text.indexOf(fence, end);
            if (close >= 0) {
                pending += text.mid(end, close - end);
                position = close + fence.size();
            } else {
                pending += fence;
                position = end;
            }
            continue;
        }
        if (code == u'&') {
            const qsizetype semicolon = text.indexOf(u';', position);
            if (semicolon > position && semicolon - position <= 32) {
                const QStringView reference = text.mid(position, semicolon - position + 1);
                const QString decoded = nbDecodeHTMLCharacterReferences(reference);
                if (decoded != reference) {
                    pending += decoded;
                    position = semicolon + 1;
                    continue;
                }
            }
        }
        pending += character;
        ++position;
    }
    flush();
    return tokens;
}

} // namespace

QString NBStyledString::markdownString() const {
    // The styles Markdown can show, run by run; the shared hyperlink takes the text it covers as address.
    std::vector<NBStyleSet> sets(runs_.size());
    for (std::size_t index = 0; index < runs_.size(); ++index)
        for (const NBStyle& style : runs_[index].styles)
            for (const Marker& marker : kMarkers)
                if (style.kind() == marker.kind || style.kind() == NBStyle::Kind::Hyperlink)
                    sets[index].insert(style);
    for (std::size_t index = 0; index < runs_.size();) {
        const NBStyle link = sets[index].styleOfKind(NBStyle::Kind::Hyperlink);
        if (link.isNull() || !link.hyperlinkURL().isEmpty()) {
            ++index;
            continue;
        }
        std::size_t end = index;
        QString text;
        for (; end < runs_.size() && sets[end].styleOfKind(NBStyle::Kind::Hyperlink) == link; ++end)
            text += QStringView(string_).mid(runs_[end].location, runEnd(end) - runs_[end].location);
        for (; index < end; ++index)
            sets[index].insert(NBStyle::styleForHyperlinkURL(text));
    }

    QString out;
    out.reserve(string_.size() + qsizetype(runs_.size()) * 4);
    NBStyleSet open;
    auto transition = [&](const NBStyleSet& next) {
        const NBStyle oldLink = open.styleOfKind(NBStyle::Kind::Hyperlink);
        const NBStyle newLink = next.styleOfKind(NBStyle::Kind::Hyperlink);
        // Closing in the reverse of the opening order keeps well-nested styles well nested for other readers.
        if (!oldLink.isNull() && oldLink != newLink) {
            out += u"](";
            out += markdownDestination(oldLink.hyperlinkURL());
            out += u')';
        }
        for (auto marker = std::rbegin(kMarkers); marker != std::rend(kMarkers); ++marker)
            if (open.containsKind(marker->kind) && !next.containsKind(marker->kind))
                out += QStringView(marker->text);
        for (const Marker& marker : kMarkers)
            if (!open.containsKind(marker.kind) && next.containsKind(marker.kind))
                out += QStringView(marker.text);
        if (!newLink.isNull() && oldLink != newLink)
            out += u'[';
        open = next;
    };
    bool atLineStart = true;
    for (std::size_t index = 0; index < runs_.size(); ++index) {
        transition(sets[index]);
        const QStringView text =
            QStringView(string_).mid(runs_[index].location, runEnd(index) - runs_[index].location);
        appendEscapedMarkdown(out, text, atLineStart);
        atLineStart = text.back() == u'\n';
    }
    transition(NBStyleSet());
    return out;
}

NBStyledString NBStyledString::styledStringFromInlineMarkdownString(QStringView markdown) {
    std::vector<Token> tokens = tokenize(markdown);
    // Pair the changes: each style's changes alternate opening and closing, so with an odd count the last
    // one has no partner and is text.
    struct Events {
        std::vector<std::pair<std::size_t, bool>> positions; // token, strong (else weak)
    };
    Events bold, italic, strike, subscript, superscript;
    std::vector<std::size_t> linkOpens;
    for (std::size_t index = 0; index < tokens.size(); ++index) {
        Token& token = tokens[index];
        if (token.type == Token::Delimiter) {
            const QChar character = token.text.front();
            if (character == u'^') {
                for (int count = 0; count < token.weakCount; ++count)
                    superscript.positions.push_back({index, false});
            } else {
                Events& strong = character == u'~' ? strike : bold;
                Events& weak = character == u'~' ? subscript : italic;
                for (int count = 0; count < token.strongCount; ++count)
                    strong.positions.push_back({index, true});
                if (token.weakCount)
                    weak.positions.push_back({index, false});
            }
        } else if (token.type == Token::LinkOpen) {
            linkOpens.push_back(index);
        } else if (token.type == Token::LinkClose && !linkOpens.empty()) {
            tokens[linkOpens.back()].matched = true;
            token.matched = true;
            linkOpens.pop_back();
        }
    }
    for (Events* events : {&bold, &italic, &strike, &subscript, &superscript}) {
        if (events->positions.size() % 2 == 0)
            continue;
        const auto [tokenIndex, strong] = events->positions.back();
        if (strong)
            tokens[tokenIndex].strongUnmatched = true;
        else
            tokens[tokenIndex].weakUnmatched = true;
        // A caret run counts each caret as a change; only the last one becomes text.
        if (events == &superscript)
            tokens[tokenIndex].weakCount -= 1;
    }

    NBMutableStyledString out;
    NBStyleSet styles;
    std::vector<qsizetype> linkStarts;
    auto toggle = [&](const NBStyle& style) {
        if (styles.containsKind(style.kind()))
            styles.removeKind(style.kind());
        else
            styles.insert(style);
    };
    for (const Token& token : tokens) {
        switch (token.type) {
        case Token::Text:
            out.appendString(token.text, styles);
            break;
        case Token::Delimiter: {
            const QChar character = token.text.front();
            QString literal;
            if (character == u'^') {
                for (int count = 0; count < token.weakCount; ++count)
                    toggle(NBStyle::superscript());
                if (token.weakUnmatched)
                    literal = QStringLiteral("^");
            } else {
                const bool tilde = character == u'~';
                const int strongToggles = token.strongCount - (token.strongUnmatched ? 1 : 0);
                for (int count = 0; count < strongToggles; ++count)
                    toggle(tilde ? NBStyle::strikethrough() : NBStyle::bold());
                if (token.weakCount && !token.weakUnmatched)
                    toggle(tilde ? NBStyle::subscript() : NBStyle::italic());
                if (token.strongUnmatched)
                    literal += QString(2, character);
                if (token.weakUnmatched)
                    literal += character;
            }
            out.appendString(literal, styles);
            break;
        }
        case Token::LinkOpen:
            if (token.matched)
                linkStarts.push_back(out.length());
            else
                out.appendString(token.text, styles);
            break;
        case Token::LinkClose:
            if (!token.matched) {
                out.appendString(token.text, styles);
                break;
            }
            const qsizetype start = linkStarts.back();
            linkStarts.pop_back();
            const NBTextRange range{start, out.length() - start};
            const bool isOwnText = out.string().mid(start) == token.address;
            out.addStyle(isOwnText ? NBStyle::hyperlink() : NBStyle::styleForHyperlinkURL(token.address),
                         range);
            break;
        }
    }
    return out;
}
