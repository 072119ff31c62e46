// What the document editor paints around the text (step numbers, bullets, list numbers, done boxes, call-out
// bars, timer buttons and running timers) and the bench helpers behind it: timers, done steps, and find.
#include "app/NBDocumentEditor.h"

#include "app/NBDocumentEditorView.h"
#include "app/NBDocumentFinder.h"
#include "document/NBExperiment.h"
#include "time/NBTimeDetector.h"

#include <QAbstractTextDocumentLayout>
#include <QApplication>
#include <QDesktopServices>
#include <QHBoxLayout>
#include <QKeyEvent>
#include <QLabel>
#include <QLineEdit>
#include <QMenu>
#include <QPainter>
#include <QPainterPath>
#include <QScrollBar>
#include <QTextBlock>
#include <QTextLayout>
#include <QToolButton>
#include <QUrl>

namespace {

// The marker of a list item at a level: bullets cycle through three shapes, numbers through three styles.
QString listMarker(const NBParagraph& paragraph) {
    const qint64 level = paragraph.indentationLevel().value_or(0);
    if (paragraph.isBulletType()) {
        static const QString bullets[] = {QStringLiteral("\u2022"), QStringLiteral("\u25E6"),
                                          QStringLiteral("\u25AA")};
        return bullets[level % 3];
    }
    const qint64 number = paragraph.listItemIndex().value_or(0) + 1;
    switch (level % 3) {
    case 1: {
        QString letters;
        for (qint64 value = number; value > 0; value = (value - 1) / 26)
            letters.prepend(QChar(char16_t(u'a' + (value - 1) % 26)));
        return letters + QLatin1Char('.');
    }
    case 2: {
        static const std::pair<int, const char*> numerals[] = {
            {1000, "m"}, {900, "cm"}, {500, "d"}, {400, "cd"}, {100, "c"}, {90, "xc"}, {50, "l"},
            {40, "xl"},  {10, "x"},   {9, "ix"},  {5, "v"},    {4, "iv"},  {1, "i"}};
        QString roman;
        qint64 value = number;
        for (const auto& [amount, letters] : numerals)
            for (; value >= amount; value -= amount)
                roman += QLatin1String(letters);
        return roman + QLatin1Char('.');
    }
    default:
        return QString::number(number) + QLatin1Char('.');
    }
}

} // namespace

// MARK: - The text view's painting and clicks

void NBEditorTextView::paintEvent(QPaintEvent* event) {
    QTextEdit::paintEvent(event);
    QPainter painter(viewport());
    editor_->paintDecorations(painter);
}

void NBEditorTextView::mousePressEvent(QMouseEvent* event) {
    if (event->button() == Qt::LeftButton && editor_->handleDecorationClick(event->position().toPoint()))
        return;
    QTextEdit::mousePressEvent(event);
}

void NBEditorTextView::mouseMoveEvent(QMouseEvent* event) {
    QTextEdit::mouseMoveEvent(event);
    const QPoint point = event->position().toPoint();
    const bool overHotspot = std::any_of(editor_->hotspots_.begin(), editor_->hotspots_.end(),
                                         [&](const auto& hotspot) { return hotspot.rect.contains(point); });
    viewport()->setCursor(overHotspot ? Qt::PointingHandCursor : Qt::IBeamCursor);
}

void NBEditorTextView::mouseDoubleClickEvent(QMouseEvent* event) {
    // A double click on an attachment opens its file.
    const QString uuid =
        editor_->mapping_->paragraphUUIDAtPosition(cursorForPosition(event->position().toPoint()).position());
    const NBParagraph paragraph = editor_->mapping_->paragraph(uuid);
    if (paragraph.isAttachmentType() && editor_->document_) {
        if (std::optional<QString> path = editor_->document_->absolutePathOfAttachmentForParagraph(paragraph))
            QDesktopServices::openUrl(QUrl::fromLocalFile(*path));
        return;
    }
    QTextEdit::mouseDoubleClickEvent(event);
}

// MARK: - Decorations

std::optional<NBTime> NBDocumentEditor::durationInParagraph(const NBParagraph& paragraph) const {
    // Detection runs the duration patterns over the text, so its result is kept until the text changes.
    const QString text = paragraph.plainTextContent();
    auto found = durations_.constFind(paragraph.uuid());
    if (found != durations_.constEnd() && found->first == text)
        return found->second;
    const std::optional<NBTime> duration = NBTimeDetector::firstMatchForDurationInString(text);
    durations_.insert(paragraph.uuid(), {text, duration});
    return duration;
}

void NBDocumentEditor::paintDecorations(QPainter& painter) {
    hotspots_.clear();
    if (!document_)
        return;
    painter.setRenderHint(QPainter::Antialiasing);
    QTextDocument* text = mapping_->textDocument();
    QAbstractTextDocumentLayout* layout = text->documentLayout();
    const int scroll = view_->verticalScrollBar()->value();
    const int height = view_->viewport()->height();
    const int width = view_->viewport()->width();
    const bool isExperiment = document_->isExperiment();
    const QFontMetrics metrics(mapping_->look().baseFont());
    const int lineHeight = metrics.height();
    const QDateTime now = QDateTime::currentDateTimeUtc();

    QTextBlock block = view_->cursorForPosition(QPoint(0, 0)).block();
    for (; block.isValid(); block = block.next()) {
        const QRectF bounds = layout->blockBoundingRect(block).translated(0, -scroll);
        if (bounds.top() > height)
            break;
        const auto* data = static_cast<const NBParagraphBlockData*>(block.userData());
        if (!data || !block.layout() || block.layout()->lineCount() == 0)
            continue;
        const NBParagraph paragraph = mapping_->paragraph(data->uuid);
        const QTextLine firstLine = block.layout()->lineAt(0);
        const qreal blockLeft = bounds.left() + block.blockFormat().leftMargin();
        const QRectF line(bounds.left(), bounds.top() + block.blockFormat().topMargin() + firstLine.y(),
                          bounds.width(), firstLine.height());
        const qreal middle = line.center().y();

        switch (paragraph.kind()) {
        case NBParagraphKind::Step: {
            const std::optional<int> number = mapping_->stepNumber(paragraph.uuid());
            const qreal diameter = lineHeight * 1.25;
            const QRectF circle(blockLeft - diameter - lineHeight * 0.4, middle - diameter / 2, diameter,
                                diameter);
            const bool done = doneUUIDs_.contains(paragraph.uuid());
            painter.setPen(Qt::NoPen);
            painter.setBrush(done ? QColor(0x2E, 0x7D, 0x32) : QColor(0x1F, 0x3A, 0x5F));
            painter.drawEllipse(circle);
            painter.setPen(Qt::white);
            QFont numberFont = mapping_->look().baseFont();
            numberFont.setBold(true);
            numberFont.setPointSizeF(numberFont.pointSizeF() * 0.85);
            painter.setFont(numberFont);
            painter.drawText(circle, Qt::AlignCenter,
                             done ? QStringLiteral("\u2713") : QString::number(number.value_or(0)));
            if (isExperiment)
                hotspots_.append({circle.toAlignedRect(), paragraph.uuid(), Hotspot::Action::ToggleDone});
            break;
        }
        case NBParagraphKind::Bullet:
        case NBParagraphKind::Number: {
            painter.setPen(QColor(0x44, 0x44, 0x44));
            painter.setFont(mapping_->look().baseFont());
            const QRectF marker(blockLeft - mapping_->look().levelIndent(), line.top(),
                                mapping_->look().levelIndent() - lineHeight * 0.3, line.height());
            painter.drawText(marker, Qt::AlignRight | Qt::AlignVCenter, listMarker(paragraph));
            break;
        }
        case NBParagraphKind::Note:
        case NBParagraphKind::Warning:
        case NBParagraphKind::Error: {
            const QRectF lines =
                block.layout()->boundingRect().translated(block.layout()->position()).translated(0, -scroll);
            const qreal top = lines.top() - lineHeight * 0.2;
            const qreal bottom = lines.bottom() + lineHeight * 0.2;
            const QColor accent = NBParagraphLook::calloutAccentColor(paragraph.kind());
            painter.fillRect(QRectF(blockLeft - lineHeight * 0.5 - 4, top, 4, bottom - top), accent);
            painter.setPen(accent);
            QFont labelFont = mapping_->look().baseFont();
            labelFont.setBold(true);
            painter.setFont(labelFont);
            const QString label = paragraph.isNoteType()      ? QStringLiteral("i")
                                  : paragraph.isWarningType() ? QStringLiteral("!")
                                                              : QStringLiteral("\u00D7");
            painter.drawText(
                QRectF(blockLeft - lineHeight * 2.5, line.top(), lineHeight * 1.5, line.height()),
                Qt::AlignCenter, label);
            break;
        }
        default:
            break;
        }

        // Timers: a running, paused or finished timer shows its time; a paragraph whose text holds a
        // duration offers to start one.
        if (!NBTimer::paragraphTypeCanCarryTimer(paragraph.type()))
            continue;
        const std::optional<NBTimer> timer = paragraph.timer();
        QString badge;
        QColor badgeColor(0x1A, 0x5F, 0xB4);
        Hotspot::Action action = Hotspot::Action::StartTimer;
        if (timer && timer->state() != NBTimerState::Idle) {
            const bool expired = timer->isExpired(now);
            // Symbols every common font has: a dot while running, bars while paused, a square once stopped.
            const QString symbol = timer->state() == NBTimerState::Running  ? QStringLiteral("\u25CF")
                                   : timer->state() == NBTimerState::Paused ? QStringLiteral("\u2016")
                                                                            : QStringLiteral("\u25A0");
            badge = QStringLiteral("%1 %2").arg(symbol, timer->displayString(now));
            badgeColor = expired ? QColor(0xC6, 0x28, 0x28)
                                 : (timer->state() == NBTimerState::Running ? QColor(0x2E, 0x7D, 0x32)
                                                                            : QColor(0x6B, 0x72, 0x80));
            action = Hotspot::Action::TimerMenu;
        } else if (const std::optional<NBTime> duration =
                       timer && timer->duration() ? timer->duration() : durationInParagraph(paragraph)) {
            badge = QStringLiteral("\u25B6 %1").arg(duration->displayString());
        } else {
            continue;
        }
        QFont badgeFont = mapping_->look().baseFont();
        badgeFont.setPointSizeF(badgeFont.pointSizeF() * 0.9);
        badgeFont.setBold(action == Hotspot::Action::TimerMenu);
        painter.setFont(badgeFont);
        const QFontMetrics badgeMetrics(badgeFont);
        const int badgeWidth = badgeMetrics.horizontalAdvance(badge) + lineHeight;
        const QRectF rect(width - badgeWidth - lineHeight * 0.5, middle - badgeMetrics.height() * 0.65,
                          badgeWidth, badgeMetrics.height() * 1.3);
        painter.setPen(badgeColor);
        painter.setBrush(QColor(badgeColor.red(), badgeColor.green(), badgeColor.blue(), 28));
        painter.drawRoundedRect(rect, rect.height() / 2, rect.height() / 2);
        painter.drawText(rect, Qt::AlignCenter, badge);
        hotspots_.append({rect.toAlignedRect(), paragraph.uuid(), action});
    }
}

bool NBDocumentEditor::handleDecorationClick(const QPoint& point) {
    for (const Hotspot& hotspot : std::as_const(hotspots_)) {
        if (!hotspot.rect.contains(point))
            continue;
        const QString uuid = hotspot.uuid;
        switch (hotspot.action) {
        case Hotspot::Action::ToggleDone:
            setParagraphDone(uuid, !isParagraphDone(uuid));
            return true;
        case Hotspot::Action::StartTimer: {
            NBError error;
            if (!startTimer(uuid, &error))
                Q_EMIT errorOccurred(error.localizedDescription());
            return true;
        }
        case Hotspot::Action::TimerMenu: {
            const std::optional<NBTimer> timer = mapping_->paragraph(uuid).timer();
            QMenu menu;
            if (timer && timer->state() == NBTimerState::Running)
                menu.addAction(tr("Pause"), this, [this, uuid] { pauseTimer(uuid); });
            else
                menu.addAction(timer && timer->state() == NBTimerState::Paused ? tr("Resume")
                                                                               : tr("Start Again"),
                               this, [this, uuid] { startTimer(uuid); });
            menu.addAction(tr("Stop"), this, [this, uuid] { stopTimer(uuid); });
            menu.addAction(tr("Remove Timer"), this, [this, uuid] { removeTimer(uuid); });
            menu.exec(view_->viewport()->mapToGlobal(hotspot.rect.bottomLeft()));
            return true;
        }
        }
    }
    return false;
}

// MARK: - Timers and done steps

void NBDocumentEditor::changeTimer(const QString& uuid, const std::function<bool(NBTimer&)>& change) {
    writePendingEdits();
    std::optional<NBParagraph> paragraph = modelParagraph(uuid);
    if (!paragraph)
        return;
    std::optional<NBTimer> timer = paragraph->timer();
    if (!timer || !change(*timer))
        return;
    paragraph->setTimer(timer);
    document_->modifyParagraph(*paragraph);
    showModelChanges({uuid}, false);
    updateTimerTicking();
    view_->viewport()->update();
}

bool NBDocumentEditor::startTimer(const QString& uuid, NBError* outError) {
    writePendingEdits();
    std::optional<NBParagraph> paragraph = modelParagraph(uuid);
    if (!paragraph)
        return false;
    if (!paragraph->timer()) {
        QVariantMap info = paragraph->info();
        if (!NBTimer::setCountdownTimerForDurationInParagraph(paragraph->type(), info,
                                                              paragraph->plainTextContent(), outError))
            return false;
        paragraph = NBParagraph::paragraphWithUUID(uuid, info);
        document_->modifyParagraph(*paragraph);
    }
    changeTimer(uuid, [](NBTimer& timer) {
        return timer.state() == NBTimerState::Paused ? timer.resume() : timer.start();
    });
    return true;
}

void NBDocumentEditor::pauseTimer(const QString& uuid) {
    changeTimer(uuid, [](NBTimer& timer) { return timer.pause(); });
}

void NBDocumentEditor::stopTimer(const QString& uuid) {
    changeTimer(uuid, [](NBTimer& timer) { return timer.stop(); });
}

void NBDocumentEditor::removeTimer(const QString& uuid) {
    writePendingEdits();
    std::optional<NBParagraph> paragraph = modelParagraph(uuid);
    if (!paragraph || !paragraph->timer())
        return;
    paragraph->setTimer(std::nullopt);
    document_->modifyParagraph(*paragraph);
    showModelChanges({uuid}, false);
    updateTimerTicking();
}

void NBDocumentEditor::updateTimerTicking() {
    bool running = false;
    for (const QString& uuid : mapping_->layout()) {
        const NBParagraph paragraph = mapping_->paragraph(uuid);
        if (paragraph.info().contains(QString::fromUtf8(kNBTimerStartKey))) {
            if (const std::optional<NBTimer> timer = paragraph.timer(); timer && timer->isRunning()) {
                running = true;
                break;
            }
        }
    }
    if (running && !tickTimer_.isActive())
        tickTimer_.start();
    else if (!running)
        tickTimer_.stop();
}

void NBDocumentEditor::setParagraphDone(const QString& uuid, bool done) {
    auto* experiment = dynamic_cast<NBExperiment*>(document_.get());
    if (!experiment)
        return;
    experiment->setParagraphDone(uuid, done);
    if (done)
        doneUUIDs_.insert(uuid);
    else
        doneUUIDs_.remove(uuid);
    view_->viewport()->update();
}

// MARK: - Find

void NBDocumentEditor::createFindBar() {
    findBar_ = new QWidget(this);
    findBar_->setObjectName(QStringLiteral("findBar"));
    auto* layout = new QHBoxLayout(findBar_);
    layout->setContentsMargins(8, 4, 8, 4);
    findField_ = new QLineEdit(findBar_);
    findField_->setObjectName(QStringLiteral("findField"));
    findField_->setPlaceholderText(tr("Find in document"));
    findField_->setClearButtonEnabled(true);
    findCount_ = new QLabel(findBar_);
    auto* previous = new QToolButton(findBar_);
    previous->setText(QStringLiteral("\u2191"));
    auto* next = new QToolButton(findBar_);
    next->setText(QStringLiteral("\u2193"));
    auto* close = new QToolButton(findBar_);
    close->setText(QStringLiteral("\u2715"));
    layout->addWidget(findField_, 1);
    layout->addWidget(findCount_);
    layout->addWidget(previous);
    layout->addWidget(next);
    layout->addWidget(close);
    connect(findField_, &QLineEdit::textChanged, this, &NBDocumentEditor::find);
    connect(findField_, &QLineEdit::returnPressed, this, [this] {
        if (QApplication::keyboardModifiers() & Qt::ShiftModifier)
            findPrevious();
        else
            findNext();
    });
    connect(previous, &QToolButton::clicked, this, &NBDocumentEditor::findPrevious);
    connect(next, &QToolButton::clicked, this, &NBDocumentEditor::findNext);
    connect(close, &QToolButton::clicked, this, [this] {
        findBar_->hide();
        find(QString());
        view_->setFocus();
    });
    auto* escape = new QAction(findBar_);
    escape->setShortcut(Qt::Key_Escape);
    escape->setShortcutContext(Qt::WidgetWithChildrenShortcut);
    connect(escape, &QAction::triggered, close, &QToolButton::click);
    findBar_->addAction(escape);
}

void NBDocumentEditor::showFindBar() {
    findBar_->show();
    findField_->setFocus();
    findField_->selectAll();
}

void NBDocumentEditor::find(const QString& query) {
    findQuery_ = query;
    findTokens_ = NBDocumentFinder::searchTokensForQuery(query);
    const quint64 generation = ++findGeneration_;
    if (findTokens_.isEmpty()) {
        findResults_.clear();
        currentFind_ = -1;
        refreshFindHighlights();
        return;
    }
    if (!finder_) {
        findResults_.clear();
        currentFind_ = -1;
        refreshFindHighlights();
        return;
    }
    // The index holds what the document holds: typing not yet written is written first, and handed to the
    // index at once.
    const QSet<QString> typed = dirty_;
    writePendingEdits();
    QList<NBParagraph> written;
    for (const QString& uuid : typed)
        if (std::optional<NBParagraph> paragraph = modelParagraph(uuid))
            written << *paragraph;
    finder_->indexParagraphs(written);
    QPointer<NBDocumentEditor> self(this);
    finder_->findParagraphs(query, [self, generation](const QStringList& uuids) {
        if (!self || generation != self->findGeneration_)
            return;
        // In document order; paragraphs that are no longer shown are left out.
        QList<QPair<int, QString>> ordered;
        for (const QString& uuid : uuids)
            if (const int index = self->mapping_->indexOfParagraph(uuid); index >= 0)
                ordered.append({index, uuid});
        std::sort(ordered.begin(), ordered.end());
        const QString previous =
            self->currentFind_ >= 0 ? self->findResults_.value(self->currentFind_) : QString();
        self->findResults_.clear();
        for (const auto& entry : ordered)
            self->findResults_ << entry.second;
        self->currentFind_ =
            self->findResults_.isEmpty() ? -1 : std::max<int>(0, int(self->findResults_.indexOf(previous)));
        self->refreshFindHighlights();
        Q_EMIT self->findFinished();
    });
}

void NBDocumentEditor::findNext() {
    if (findResults_.isEmpty())
        return;
    currentFind_ = (currentFind_ + 1) % int(findResults_.size());
    refreshFindHighlights();
}

void NBDocumentEditor::findPrevious() {
    if (findResults_.isEmpty())
        return;
    currentFind_ = (currentFind_ - 1 + int(findResults_.size())) % int(findResults_.size());
    refreshFindHighlights();
}

void NBDocumentEditor::refreshFindHighlights() {
    QList<QTextEdit::ExtraSelection> selections;
    QTextDocument* text = mapping_->textDocument();
    for (int index = 0; index < findResults_.size(); ++index) {
        const QString& uuid = findResults_[index];
        const int start = mapping_->startOfParagraph(uuid);
        const int end = mapping_->endOfParagraph(uuid);
        if (start < 0)
            continue;
        // Highlight block by block, so table cells are highlighted where their words are.
        for (QTextBlock block = text->findBlock(start); block.isValid() && block.position() < end;
             block = block.next()) {
            for (const NBTextRange& range : NBDocumentFinder::highlightRanges(block.text(), findTokens_)) {
                QTextEdit::ExtraSelection selection;
                selection.cursor = QTextCursor(text);
                selection.cursor.setPosition(block.position() + int(range.location));
                selection.cursor.setPosition(block.position() + int(range.end()), QTextCursor::KeepAnchor);
                selection.format.setBackground(index == currentFind_ ? QColor(0xFF, 0x9F, 0x1C)
                                                                     : QColor(0xFF, 0xEB, 0x3B));
                selections.append(selection);
            }
        }
    }
    view_->setExtraSelections(selections);
    if (currentFind_ >= 0) {
        const int start = mapping_->startOfParagraph(findResults_[currentFind_]);
        if (start >= 0) {
            QTextCursor cursor(text);
            cursor.setPosition(start);
            view_->setTextCursor(cursor);
            view_->ensureCursorVisible();
        }
    }
    updateFindBar();
}

void NBDocumentEditor::updateFindBar() {
    if (!findCount_)
        return;
    if (findQuery_.trimmed().isEmpty())
        findCount_->clear();
    else if (findResults_.isEmpty())
        findCount_->setText(tr("Not found"));
    else
        findCount_->setText(tr("%1 of %2").arg(currentFind_ + 1).arg(findResults_.size()));
}
