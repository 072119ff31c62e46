// NBFrontMatter: the metadata block at the top of a Markdown file, and the JSON form of property-list
// values that it and the .eln metadata use.
//
// A front-matter block is a first line "---", then lines "key: value", then a line "---" (or "...").
// Without its closing line there is no block and the whole file is text. The Quillon Markdown form writes
// every value as JSON, which is also valid YAML, so any Markdown tool that knows front matter reads it:
//   uuid: "5A1C..."           strings in double quotes with JSON escapes
//   rating: 4                 numbers, true and false
//   categories: ["DNA", "Gel"]
//   created: {"$date": "2024-03-07T09:30:00.000Z"}    dates and data, which JSON lacks, as one-key objects
//   blob: {"$data": "AAEC"}                            (base64)
// Front matter written by other tools is read as far as it is a simple YAML mapping: plain, single- and
// double-quoted scalars, flow lists of such scalars ("[a, b]") and block lists ("- a" on the following
// indented lines). Nested mappings, multi-line scalars and comments are skipped.
#pragma once

#include <QJsonValue>
#include <QList>
#include <QPair>
#include <QString>
#include <QVariant>

struct NBFrontMatter {
    bool present = false;
    QList<QPair<QString, QVariant>> entries;
    // Where the text after the block begins (0 without a block).
    qsizetype bodyStart = 0;

    bool contains(const QString& key) const;
    QVariant value(const QString& key) const;

    // Reads the block at the start of the text (a byte-order mark before it is allowed).
    static NBFrontMatter frontMatterFromMarkdown(QStringView text);
    // The block for the entries, each value written as JSON, ending with the closing line and a newline.
    static QString frontMatterString(const QList<QPair<QString, QVariant>>& entries);

    // Property-list values as JSON and back (dates and data as the one-key objects above; integers stay
    // integers when they are whole numbers within 2^53).
    static QJsonValue jsonValueFromPropertyList(const QVariant& value);
    static QVariant propertyListFromJSONValue(const QJsonValue& value);
};
