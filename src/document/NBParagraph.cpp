// NBParagraph: the kind tables, construction and rebuilding, property access, comparison, the table cell
// grid, numbered-list counters and the outline tree.
#include "document/NBParagraph.h"

#include "document/NBSpreadsheetData.h"
#include "foundation/NBLogging.h"
#include "foundation/NBPropertyList.h"

#include <QLoggingCategory>
#include <QUuid>

#include <array>
#include <map>
#include <vector>

Q_LOGGING_CATEGORY(lcParagraph, "quillon.document.paragraph")

namespace {

struct KindDescription {
    NBParagraphKind kind;
    const char* className;
    const char* type;
    int headerLevel;
    QStringList properties;
};

// The kind table, in NBParagraphKind order. Built once on first use and read-only afterwards.
const std::vector<KindDescription>& kindDescriptions() {
    static const std::vector<KindDescription> descriptions = [] {
        const QString content = kNBParagraphContentKey, parent = kNBParagraphParentUUIDKey;
        const QStringList timerKeys{kNBTimerStartKey, kNBTimerStopKey, kNBTimerDurationKey,
                                    kNBTimerElapsedKey, kNBTimerAppearanceKey};
        const QStringList body{content, parent};
        const QStringList withTimer = body + timerKeys;
        const QStringList listItem = body + QStringList{kNBParagraphIndentationLevelKey} + timerKeys;
        std::vector<KindDescription> table{
            {NBParagraphKind::Day, "NBParagraphDay", kNBParagraphTypeDay, 1, {kNBParagraphDayRepKey}},
            {NBParagraphKind::Step,
             "NBParagraphStep",
             kNBParagraphTypeStep,
             2,
             {content, kNBParagraphStepUUIDKey, kNBParagraphProtocolUUIDKey}},
            {NBParagraphKind::Section, "NBParagraphSection", kNBParagraphTypeSection, 3, body},
            {NBParagraphKind::Normal, "NBParagraphNormal", kNBParagraphTypeNormal, 4, withTimer},
            {NBParagraphKind::Bullet, "NBParagraphBullet", kNBParagraphTypeBullet, 4, listItem},
            {NBParagraphKind::Number, "NBParagraphNumber", kNBParagraphTypeNumber, 4, listItem},
            {NBParagraphKind::Code, "NBParagraphCode", kNBParagraphTypeCode, 4, withTimer},
            {NBParagraphKind::Note, "NBParagraphNote", kNBParagraphTypeNote, 4, body},
            {NBParagraphKind::Warning, "NBParagraphWarning", kNBParagraphTypeWarning, 4, body},
            {NBParagraphKind::Error, "NBParagraphError", kNBParagraphTypeError, 4, body},
            {NBParagraphKind::Attachment, "NBParagraphAttachment", kNBParagraphTypeAttachment, 4,
             body + QStringList{kNBParagraphSourcePathKey}},
            {NBParagraphKind::Table, "NBParagraphTable", kNBParagraphTypeTable, 4,
             body + QStringList{kNBParagraphTableColumnWidthsKey}},
            {NBParagraphKind::Fragment, "NBParagraphFragment", kNBParagraphTypeFragment, 4, {content}},
            {NBParagraphKind::PlainTextFragment,
             "NBParagraphPlainTextFragment",
             kNBParagraphTypePlainTextFragment,
             4,
             {content}},
        };
        // The table is indexed by kind, so its order must follow the enumeration.
        for (std::size_t index = 0; index < table.size(); ++index) {
            if (static_cast<std::size_t>(table[index].kind) != index)
                nbRaiseAssertion(lcParagraph(), nbFormat("NBParagraph kind table out of order at %@",
                                                         table[index].className));
        }
        return table;
    }();
    return descriptions;
}

const KindDescription& descriptionForKind(NBParagraphKind kind) {
    return kindDescriptions()[static_cast<std::size_t>(kind)];
}

// The storable types: every kind but the two fragments.
const QHash<QString, NBParagraphKind>& storableKindsByType() {
    static const QHash<QString, NBParagraphKind> kinds = [] {
        QHash<QString, NBParagraphKind> map;
        for (const KindDescription& description : kindDescriptions()) {
            if (description.kind != NBParagraphKind::Fragment &&
                description.kind != NBParagraphKind::PlainTextFragment)
                map.insert(QString::fromUtf8(description.type), description.kind);
        }
        if (map.size() != 12)
            nbRaiseAssertion(lcParagraph(), "NBParagraph type map does not hold the twelve storable types");
        return map;
    }();
    return kinds;
}

// The "\n" and "\t" of the cell grid, and their escapes inside cells.
const QString kRowSeparator = QStringLiteral("\n");
const QString kCellSeparator = QStringLiteral("\t");

// A property-list number or numeric string read as a whole number, as stored levels may have been written
// by other tools (a real 2.0, a string "2").
std::optional<qint64> wholeNumber(const QVariant& value) {
    switch (value.typeId()) {
    case QMetaType::Bool:
        return std::nullopt;
    case QMetaType::Double:
    case QMetaType::Float: {
        double number = value.toDouble();
        if (!(number >= -9.0e18 && number <= 9.0e18) || number != static_cast<double>(qint64(number)))
            return std::nullopt;
        return qint64(number);
    }
    default: {
        bool ok = false;
        qint64 number = value.toLongLong(&ok);
        if (!ok)
            return std::nullopt;
        return number;
    }
    }
}

bool isNumber(const QVariant& value) {
    switch (value.typeId()) {
    case QMetaType::Int:
    case QMetaType::UInt:
    case QMetaType::LongLong:
    case QMetaType::ULongLong:
    case QMetaType::Double:
    case QMetaType::Float:
        return true;
    default:
        return false;
    }
}

// Stored values compare as property-list values, except that numbers compare by value whether they were
// written as integers or reals (another tool may store a level of 2 as 2.0).
bool storedValuesEqual(const QVariant& first, const QVariant& second) {
    if (isNumber(first) && isNumber(second) && first.typeId() != second.typeId()) {
        std::optional<qint64> firstWhole = wholeNumber(first), secondWhole = wholeNumber(second);
        if (firstWhole && secondWhole)
            return *firstWhole == *secondWhole;
        return first.toDouble() == second.toDouble();
    }
    return propertyListValuesEqual(first, second);
}

// The level a list item is at, for counters and the outline: a missing or unreadable level counts as 0.
qint64 levelOf(const NBParagraph& paragraph) {
    return paragraph.indentationLevel().value_or(0);
}

} // namespace

// ---- Kind tables ----

QString NBParagraph::classNameForKind(NBParagraphKind kind) {
    return QString::fromUtf8(descriptionForKind(kind).className);
}

QString NBParagraph::typeForKind(NBParagraphKind kind) {
    return QString::fromUtf8(descriptionForKind(kind).type);
}

int NBParagraph::headerLevelForKind(NBParagraphKind kind) {
    return descriptionForKind(kind).headerLevel;
}

std::optional<NBParagraphKind> NBParagraph::paragraphSubclassForType(const QString& type) {
    auto found = storableKindsByType().constFind(type);
    if (found == storableKindsByType().constEnd())
        return std::nullopt;
    return *found;
}

const QHash<QString, QStringList>& NBParagraph::propertyNamesByClass() {
    static const QHash<QString, QStringList> table = [] {
        QHash<QString, QStringList> map;
        for (const KindDescription& description : kindDescriptions())
            map.insert(QString::fromUtf8(description.className), description.properties);
        return map;
    }();
    return table;
}

const QSet<QString>& NBParagraph::allPropertyNames() {
    static const QSet<QString> names = [] {
        QSet<QString> set;
        for (const KindDescription& description : kindDescriptions())
            for (const QString& name : description.properties)
                set.insert(name);
        return set;
    }();
    return names;
}

// ---- Construction ----

NBParagraph::NBParagraph() : NBParagraph(NBParagraphKind::Normal, QString()) {}

NBParagraph::NBParagraph(NBParagraphKind kind, const QString& uuid) : uuid_(uuid), kind_(kind) {
    info_.insert(kNBParagraphTypeKey, typeForKind(kind));
}

QString NBParagraph::newUUIDString() {
    return QUuid::createUuid().toString(QUuid::WithoutBraces).toUpper();
}

NBParagraph NBParagraph::paragraphOfKind(NBParagraphKind kind) {
    return NBParagraph(kind, newUUIDString());
}

NBParagraph NBParagraph::paragraphOfKind(NBParagraphKind kind, const QString& content) {
    NBParagraph paragraph = paragraphOfKind(kind);
    paragraph.setContent(content);
    return paragraph;
}

NBParagraph NBParagraph::dayParagraphWithDay(const NBDay& day) {
    NBParagraph paragraph = paragraphOfKind(NBParagraphKind::Day);
    paragraph.setDay(day);
    return paragraph;
}

NBParagraph NBParagraph::dayParagraphWithDayRep(const QString& dayRep) {
    NBParagraph paragraph = paragraphOfKind(NBParagraphKind::Day);
    paragraph.setDayRep(dayRep);
    return paragraph;
}

NBParagraph NBParagraph::stepParagraphWithTitle(const QString& title, const QString& stepUUID,
                                                const QString& protocolUUID) {
    NBParagraph paragraph = paragraphOfKind(NBParagraphKind::Step, title);
    paragraph.setStepUUID(stepUUID);
    paragraph.setProtocolUUID(protocolUUID);
    return paragraph;
}

NBParagraph NBParagraph::sectionParagraphWithTitle(const QString& title) {
    return paragraphOfKind(NBParagraphKind::Section, title);
}

NBParagraph NBParagraph::normalParagraphWithContent(const QString& content) {
    return paragraphOfKind(NBParagraphKind::Normal, content);
}

NBParagraph NBParagraph::codeParagraphWithContent(const QString& content) {
    return paragraphOfKind(NBParagraphKind::Code, content);
}

NBParagraph NBParagraph::noteParagraphWithContent(const QString& content) {
    return paragraphOfKind(NBParagraphKind::Note, content);
}

NBParagraph NBParagraph::warningParagraphWithContent(const QString& content) {
    return paragraphOfKind(NBParagraphKind::Warning, content);
}

NBParagraph NBParagraph::errorParagraphWithContent(const QString& content) {
    return paragraphOfKind(NBParagraphKind::Error, content);
}

NBParagraph NBParagraph::bulletParagraphWithContent(const QString& content, qint64 indentationLevel) {
    NBParagraph paragraph = paragraphOfKind(NBParagraphKind::Bullet, content);
    paragraph.setIndentationLevel(indentationLevel);
    return paragraph;
}

NBParagraph NBParagraph::numberParagraphWithContent(const QString& content, qint64 indentationLevel) {
    NBParagraph paragraph = paragraphOfKind(NBParagraphKind::Number, content);
    paragraph.setIndentationLevel(indentationLevel);
    return paragraph;
}

NBParagraph NBParagraph::attachmentParagraphWithContent(const QString& content, const QString& sourcePath) {
    NBParagraph paragraph = paragraphOfKind(NBParagraphKind::Attachment, content);
    paragraph.setSourcePath(sourcePath);
    return paragraph;
}

NBParagraph NBParagraph::paragraphFragmentWithContent(const QString& content) {
    return paragraphOfKind(NBParagraphKind::Fragment, content);
}

NBParagraph NBParagraph::paragraphPlainTextFragmentWithContent(const QString& content) {
    return paragraphOfKind(NBParagraphKind::PlainTextFragment, content);
}

NBParagraph NBParagraph::tableParagraphWithRows(const QList<QStringList>& rows) {
    QStringList lines;
    lines.reserve(rows.size());
    for (const QStringList& row : rows) {
        QStringList cells;
        cells.reserve(row.size());
        for (const QString& cell : row)
            cells << NBSpreadsheetData::escapedCellString(cell);
        lines << cells.join(kCellSeparator);
    }
    return paragraphOfKind(NBParagraphKind::Table, lines.join(kRowSeparator));
}

NBParagraph NBParagraph::tableParagraphWithRows(const QList<QStringList>& rows,
                                                const std::optional<QList<qreal>>& columnWidths) {
    NBParagraph paragraph = tableParagraphWithRows(rows);
    paragraph.setTableColumnWidths(columnWidths);
    return paragraph;
}

std::optional<NBParagraph> NBParagraph::paragraphWithUUID(const QString& uuid, const QVariantMap& info) {
    const QVariant type = info.value(kNBParagraphTypeKey);
    if (type.typeId() != QMetaType::QString)
        return std::nullopt;
    std::optional<NBParagraphKind> kind = paragraphSubclassForType(type.toString());
    if (!kind)
        return std::nullopt;
    NBParagraph paragraph(*kind, uuid);
    // Stored entries are kept as they are, unknown keys included, so that a newer version's properties
    // survive being read and written back by this one.
    paragraph.info_ = info;
    return paragraph;
}

// ---- Properties ----

QString NBParagraph::type() const {
    return info_.value(kNBParagraphTypeKey).toString();
}

void NBParagraph::setType(const QString& type) {
    if (type.isNull())
        return;
    info_.insert(kNBParagraphTypeKey, type);
}

bool NBParagraph::allowsProperty(const QString& key) const {
    return allPropertyNames().contains(key) && descriptionForKind(kind_).properties.contains(key);
}

QVariant NBParagraph::valueForProperty(const QString& key) const {
    if (key == QLatin1String(kNBParagraphTypeKey))
        return info_.value(key);
    if (!allowsProperty(key))
        return QVariant();
    return info_.value(key);
}

void NBParagraph::setValueForProperty(const QString& key, const QVariant& value) {
    if (key == QLatin1String(kNBParagraphTypeKey)) {
        if (value.isValid())
            setType(value.toString());
        return;
    }
    if (!allowsProperty(key))
        return;
    if (!value.isValid())
        info_.remove(key);
    else
        info_.insert(key, value);
}

QString NBParagraph::stringProperty(const char* key) const {
    QVariant value = valueForProperty(QString::fromUtf8(key));
    if (value.typeId() != QMetaType::QString)
        return QString();
    return value.toString();
}

void NBParagraph::setStringProperty(const char* key, const QString& value) {
    setValueForProperty(QString::fromUtf8(key), value.isNull() ? QVariant() : QVariant(value));
}

std::optional<qint64> NBParagraph::indentationLevel() const {
    QVariant value = valueForProperty(kNBParagraphIndentationLevelKey);
    if (!value.isValid())
        return std::nullopt;
    std::optional<qint64> level = wholeNumber(value);
    if (!level || *level < 0)
        return std::nullopt;
    return level;
}

void NBParagraph::setIndentationLevel(std::optional<qint64> indentationLevel) {
    setValueForProperty(kNBParagraphIndentationLevelKey,
                        indentationLevel ? QVariant(qMax<qint64>(*indentationLevel, 0)) : QVariant());
}

std::optional<QList<qreal>> NBParagraph::tableColumnWidths() const {
    QVariant value = valueForProperty(kNBParagraphTableColumnWidthsKey);
    if (value.typeId() != QMetaType::QVariantList)
        return std::nullopt;
    QList<qreal> widths;
    for (const QVariant& width : value.toList()) {
        bool ok = false;
        qreal number = width.toDouble(&ok);
        if (!ok || width.typeId() == QMetaType::QString || width.typeId() == QMetaType::Bool)
            return std::nullopt;
        widths << number;
    }
    return widths;
}

void NBParagraph::setTableColumnWidths(const std::optional<QList<qreal>>& columnWidths) {
    if (!columnWidths) {
        setValueForProperty(kNBParagraphTableColumnWidthsKey, QVariant());
        return;
    }
    QVariantList widths;
    for (qreal width : *columnWidths)
        widths << width;
    setValueForProperty(kNBParagraphTableColumnWidthsKey, widths);
}

// ---- Derived values ----

NBDay NBParagraph::day() const {
    return NBDay::dayWithStringRepresentation(dayRep());
}

void NBParagraph::setDay(const NBDay& day) {
    setDayRep(day.isNull() ? QString() : day.stringRepresentation());
}

NBStyledString NBParagraph::styledContent() const {
    if (isDayType()) {
        NBDay paragraphDay = day();
        return NBStyledString(paragraphDay.isNull() ? QString() : paragraphDay.longString());
    }
    if (isPlainTextFragment())
        return NBStyledString(content());
    return NBStyledString::styledStringFromMarkupString(content());
}

QString NBParagraph::plainTextContent() const {
    if (isPlainTextFragment())
        return content();
    return styledContent().string();
}

std::optional<NBTimer> NBParagraph::timer() const {
    if (!allowsProperty(kNBTimerStartKey))
        return std::nullopt;
    return NBTimer::timerWithInfo(info_);
}

void NBParagraph::setTimer(const std::optional<NBTimer>& timer) {
    if (!allowsProperty(kNBTimerStartKey))
        return;
    if (timer)
        timer->writeToInfo(info_);
    else
        NBTimer::removeFromInfo(info_);
}

std::optional<QList<QStringList>> NBParagraph::arrayOfArraysOfMarkupStrings() const {
    if (!isTableType())
        return std::nullopt;
    QList<QStringList> rows;
    const QStringList lines = content().split(kRowSeparator);
    rows.reserve(lines.size());
    for (const QString& line : lines)
        rows << line.split(kCellSeparator);
    return rows;
}

// ---- Copies and comparison ----

std::optional<NBParagraph> NBParagraph::copy() const {
    return paragraphWithUUID(uuid_, info_);
}

std::optional<NBParagraph> NBParagraph::derivedParagraph() const {
    std::optional<NBParagraph> derived = paragraphWithUUID(newUUIDString(), info_);
    if (derived)
        derived->setParentUUID(uuid_);
    return derived;
}

bool NBParagraph::isEqualToParagraph(const NBParagraph& other) const {
    if (uuid_ != other.uuid_ || type() != other.type())
        return false;
    // A missing value equals an empty string, so a paragraph that never had a "content" equals one whose
    // content was cleared.
    const QVariant missing = QString();
    auto valuesEqual = [&](const QString& key) {
        QVariant mine = info_.value(key, missing);
        QVariant theirs = other.info_.value(key, missing);
        return storedValuesEqual(mine, theirs);
    };
    for (auto entry = info_.constKeyValueBegin(); entry != info_.constKeyValueEnd(); ++entry) {
        if (!valuesEqual(entry->first))
            return false;
    }
    for (auto entry = other.info_.constKeyValueBegin(); entry != other.info_.constKeyValueEnd(); ++entry) {
        if (!info_.contains(entry->first) && !valuesEqual(entry->first))
            return false;
    }
    return true;
}

QString NBParagraph::description() const {
    return QStringLiteral("<%1:0x%2>\n%3")
        .arg(className(), QString::number(reinterpret_cast<quintptr>(this), 16),
             propertyListDescription(info_));
}

// ---- Numbered lists ----

void NBParagraph::updateNumberedListCountersForParagraphs(QList<NBParagraph>& paragraphs) {
    // The counter stack [c0, c1, ... cL] of the current list, kept sparse: levels that hold no number yet
    // (-1) are absent, so that an absurd stored level costs nothing. Shrinking the stack to L + 1 entries
    // drops every deeper level; growing it adds only absent (-1) entries.
    std::map<qint64, qint64> counters;
    for (NBParagraph& paragraph : paragraphs) {
        switch (paragraph.kind()) {
        case NBParagraphKind::Attachment:
        case NBParagraphKind::Note:
        case NBParagraphKind::Warning:
        case NBParagraphKind::Error:
        case NBParagraphKind::Table:
            break; // neither counts nor ends a list
        case NBParagraphKind::Bullet:
        case NBParagraphKind::Number: {
            const qint64 level = levelOf(paragraph);
            counters.erase(counters.upper_bound(level), counters.end());
            if (paragraph.isNumberType()) {
                auto [entry, inserted] = counters.try_emplace(level, -1);
                paragraph.setListItemIndex(++entry->second);
            }
            break;
        }
        default:
            counters.clear();
            break;
        }
    }
}

// ---- Outline ----

namespace {

// True when `next` ends the subtree of `parent` (it belongs to an enclosing level).
bool endsSubtree(const NBParagraph& parent, const NBParagraph& next) {
    const int parentHeader = parent.headerLevel();
    if (parentHeader < 4)
        return next.headerLevel() <= parentHeader;
    return levelOf(next) <= levelOf(parent);
}

NBTreeNode::Pointer nodeForParagraph(const NBParagraph& paragraph) {
    return NBTreeNode::treeNodeWithRepresentedObject(QVariant::fromValue(paragraph));
}

} // namespace

NBTreeNode::Pointer NBParagraph::treeWithParentParagraph(qsizetype parentIndex,
                                                         const QList<NBParagraph>& allParagraphs) {
    if (parentIndex < 0 || parentIndex >= allParagraphs.size())
        return nullptr;
    // The recursive form of the outline (a paragraph's subtree is made of the subtrees of the paragraphs
    // it holds) is run with an explicit stack of open subtrees, because list levels in stored documents
    // can nest as deep as the document is long.
    struct Open {
        qsizetype index;
        NBTreeNode::Pointer node;
    };
    NBTreeNode::Pointer top = nodeForParagraph(allParagraphs[parentIndex]);
    std::vector<Open> open{{parentIndex, top}};
    for (qsizetype index = parentIndex + 1; index < allParagraphs.size(); ++index) {
        const NBParagraph& next = allParagraphs[index];
        while (!open.empty() && endsSubtree(allParagraphs[open.back().index], next))
            open.pop_back();
        if (open.empty())
            break; // the outermost subtree ends here
        NBTreeNode::Pointer child = nodeForParagraph(next);
        open.back().node->addChildNode(child);
        if (!(next.headerLevel() >= 4 && levelOf(next) == 0))
            open.push_back({index, child});
    }
    return top;
}

qsizetype NBParagraph::descendentCountForTree(const NBTreeNode::Pointer& tree) {
    return tree ? qsizetype(tree->descendantCount()) : 0;
}

NBTreeNode::Pointer NBParagraph::documentTreeWithParagraphs(const QList<NBParagraph>& paragraphs) {
    NBTreeNode::Pointer root = NBTreeNode::treeNodeWithRepresentedObject();
    for (qsizetype index = 0; index < paragraphs.size();) {
        NBTreeNode::Pointer subtree = treeWithParentParagraph(index, paragraphs);
        root->addChildNode(subtree);
        index += 1 + descendentCountForTree(subtree);
    }
    return root;
}
