// In-place clean-up edits of a text: replacing, deleting and trimming the characters of a set, turning
// every kind of whitespace and line break into plain spaces, and collapsing runs of spaces. Search
// normalisation is described in terms of these edits (see NBSearchNormalization.h), and they are useful
// wherever text typed by a user must be tidied before it is compared or stored.
//
// A "character" is one UTF-16 code unit and comparisons are literal (code unit by code unit). Each
// operation edits only the text it is given and may be called from any thread.
#pragma once

#include "search/NBCharacterSet.h"

#include <QString>

// Replaces every maximal run of consecutive characters of `set` by one copy of `replacement`.
void replaceCharactersInSet(QString& text, const NBCharacterSet& set, QStringView replacement);

// Removes every character of `set`.
void deleteCharactersInSet(QString& text, const NBCharacterSet& set);

// Removes the characters of `set` at the start and at the end; a text made only of such characters
// becomes empty.
void trimCharactersInSet(QString& text, const NBCharacterSet& set);

// Replaces every run of whitespace and line breaks other than the plain space (tabs, newlines, no-break
// spaces, ideographic spaces, ...) by one plain space. Plain spaces themselves are left as they are.
void replaceWhitespaceAndNewlinesWithSpaces(QString& text);

// The characters that replaceWhitespaceAndNewlinesWithSpaces replaces: the whitespace-and-newline class
// plus U+00A0 (no-break space), without U+0020 (space). Built once and shared.
const NBCharacterSet& whitespaceAndNewlineCharacterSetWithoutSpace();

// Replaces every "  " (two spaces) by " ", left to right, and repeats the pass while a pass replaced
// anything, at most 100 passes. Each pass halves a run of spaces, so any run that fits in memory
// collapses to one space long before the limit.
void cleanUpContiguousSpaces(QString& text);
