// Inserting a protocol, or some of its paragraphs, into an experiment from a chosen calendar day: the
// notebook's central workflow (NBExperiment::insertProtocol, declared in NBExperiment.h).
//
// Each protocol paragraph becomes a derived copy (a new UUID, "parentUUID" naming the protocol paragraph
// where the kind allows it). A step instead records which step of which protocol it performs: "stepUUID" is
// the protocol step's UUID and "protocolUUID" the protocol's, so that the experiment can later show which
// protocol steps were done, whatever was edited since. Protocol days are relative ("{day:0}", "{day:3}"): day
// n lands on the chosen day plus n, and every copy is placed with appendParagraph(paragraph, day), so days
// the experiment already has receive the new paragraphs at their end and new days are put in calendar order.
#include "document/NBExperiment.h"
#include "document/NBProtocol.h"

#include "foundation/NBLogging.h"

QList<NBParagraph> NBExperiment::insertProtocol(NBProtocol& protocol, const NBDay& startDay,
                                                const QStringList& paragraphUUIDs, NBError* outError) {
    const QList<NBParagraph> source = protocol.paragraphs();
    const QString protocolUUID = protocol.uuid();
    const QSet<QString> selection(paragraphUUIDs.begin(), paragraphUUIDs.end());

    struct Placed {
        NBParagraph original;
        NBParagraph copy;
        NBDay day;
    };
    std::vector<Placed> placed;
    NBDay currentDay = startDay;
    for (const NBParagraph& paragraph : source) {
        if (paragraph.isDayType()) {
            const NBDay day = paragraph.day();
            if (day.isRelativeDay())
                currentDay = startDay.dayByAddingDayInterval(day.dayInterval());
            else if (day.isCalendarDay())
                currentDay = day;
            continue;
        }
        if (!selection.isEmpty() && !selection.contains(paragraph.uuid()))
            continue;
        std::optional<NBParagraph> copy = paragraph.derivedParagraph();
        if (!copy)
            continue;
        if (copy->isStepType()) {
            copy->setStepUUID(paragraph.uuid());
            copy->setProtocolUUID(protocolUUID);
        }
        // A day that cannot be reached (outside the calendar's range) keeps the paragraph on the start day.
        placed.push_back({paragraph, *copy, currentDay.isNull() ? startDay : currentDay});
    }

    QList<NBParagraph> inserted;
    runTransaction([&] {
        for (const Placed& each : placed) {
            appendParagraph(each.copy, each.day);
            inserted.append(each.copy);
        }
    });

    // Attachments travel with their paragraphs: the protocol's blob becomes the copy's blob.
    std::vector<NBError> errors;
    for (const Placed& each : placed) {
        if (!each.original.isAttachmentType() || !blobPathForParagraph(each.original))
            continue;
        NBError error;
        const std::optional<QByteArray> data = protocol.attachmentDataForParagraph(each.original, &error);
        if (!data || !writeAttachmentData(*data, each.copy, &error))
            errors.push_back(error);
    }
    if (!errors.empty())
        nbFail(outError, errorForAttachmentErrors(std::move(errors)));
    return inserted;
}
