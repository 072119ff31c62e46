// Normalisation of text for search: the one canonical form in which the full-text indexes store and match
// words, the splitting of text into search tokens that remember where they came from, and the stretches of
// a text to highlight for a query.
//
// Every path into or out of an index goes through normalizedStringForSearch: paragraphs and metadata when
// they are indexed, queries when they are typed. The search form of a text is built in seven steps:
//
//   1. Fold case, diacritics and width together (foldedStringForSearch below).
//   2. Delete every character of ignoredCharacterSet (currency signs, ©, ®, ™, ±, daggers, ...).
//   3. Replace every run of tokenSeparatorCharacterSet characters (whitespace, line breaks, punctuation,
//      brackets, quotes, dashes, the degree sign, ...) by one space.
//   4. Replace every key of characterNormalizationDictionary by its value ("&" -> " and ", "α" -> " alpha ",
//      "ø" -> "o", ...). Every key is one character and no value holds a key, so the order of the entries
//      does not matter.
//   5. Replace whitespace and line breaks by plain spaces (replaceWhitespaceAndNewlinesWithSpaces).
//   6. Collapse runs of spaces (cleanUpContiguousSpaces).
//   7. Trim whitespace (spaces and tabs) at both ends.
//
// So "Müller & Søn" becomes "muller and son", "α-helix" becomes "alpha helix" and "£5" becomes "5". The
// implementation runs the seven steps as one pass over the text, character by character, which gives the
// same result as running them one after the other (the tests check this against the literal sequence):
// after step 3 the only whitespace left is the plain space, so step 5 changes nothing, and steps 3, 4, 6 and
// 7 together amount to "words separated by single spaces, none at the ends".
//
// Folding (step 1). Each code point is mapped on its own, in this order: a full-width or half-width form
// (Unicode decomposition type <wide> or <narrow>) becomes its normal-width character ("Ａ" -> "A",
// "１" -> "1", half-width katakana -> katakana, U+3000 -> space); the result is canonically decomposed and
// its non-spacing marks (general category Mn: accents, cedillas, tildes, the Japanese voicing marks, Hebrew
// and Arabic vowel points) are removed; then full case folding applies ("ß" -> "ss", "ﬁ" -> "fi",
// "µ" -> "μ", "ς" -> "σ"), followed again by canonical decomposition and removal of non-spacing marks (a few
// case foldings bring marks back, "İ" -> "i" + U+0307). The mapping is repeated until it no longer changes
// anything, so folding is idempotent character by character, and therefore normalisation is idempotent.
// Characters that canonical decomposition does not take apart keep their letter: "ø", "ł", "æ" and "œ"
// reach the table of step 4 as they are ("ł" -> "i" there, a quirk of the table that is kept on purpose).
// Compatibility forms other than width (superscripts, subscripts, circled digits, mathematical letters)
// are left alone: "H₂O" stays "h₂o". An unpaired surrogate (half of a character whose other half was lost,
// as when text is cut in the middle of a pair) stands for no letter and is dropped, like an ignored
// character: the search form and the tokens are always valid UTF-16, so what an index stores from them
// converts to UTF-8 and back unchanged, and a damaged paragraph is still found by its intact words.
//
// Locale. Folding is the same on every machine and ignores the user's locale: in particular "I" always
// folds to "i", never to the Turkish dotless "ı". A library is shared between devices, and its indexes,
// which are rebuilt anywhere, must hold the same words whichever device built them and whichever device
// queries them; a Turkish locale would also turn every capital I into "ı", which is a token separator
// below, and so split "INFO" into "nfo". Turkish text still matches: "İ", "I" and "i" all fold to "i", and
// the dotless "ı" separates words, as it always has, in every locale.
//
// Text is handled as UTF-16 code units: every length, index and range counts units, and a "character" of a
// set is one unit. A character outside the Basic Multilingual Plane is two units; none of the sets holds a
// surrogate, so splitting never cuts such a character in two, and every range lies inside its text.
//
// The character sets and the table are fixed data, built once on first use (thread-safe) and then only
// read; their consistency is asserted once, when they are built. Every operation may be called from any
// thread.
#pragma once

#include "foundation/NBTextRange.h"
#include "search/NBCharacterSet.h"

#include <QList>
#include <QMap>
#include <QString>
#include <QStringList>

// The canonical search form of `text` (the seven steps above).
QString normalizedStringForSearch(QStringView text);

// Step 1 alone: `text` with case, diacritics and width folded.
QString foldedStringForSearch(QStringView text);

// The 32 characters that are deleted outright from search text.
const NBCharacterSet& ignoredCharacterSet();
// The 62 punctuation and symbol characters that end a word, plus the whitespace-and-newline class.
const NBCharacterSet& tokenSeparatorCharacterSet();
// The keys of characterNormalizationDictionary whose value begins and ends with a space (&, the Greek
// letters and mathematical symbols, ¢ and €): each is a word of its own.
const NBCharacterSet& tokenCharacterSet();
// One-character keys and their replacements, 65 entries. A value that begins and ends with a space makes
// its key a word of its own.
const QMap<QString, QString>& characterNormalizationDictionary();

// How many of the code units 0 to 0xFFFF `set` holds.
unsigned countOfCharacterSet(const NBCharacterSet& set);

// Splits `text` into search tokens and appends them to `tokens`, and at the same index to
// `rangesInOriginalString` the stretch of `text` that each came from. The text is cut at every token
// separator (two adjacent separators give an empty part, which is skipped) and again around every
// character of tokenCharacterSet, which becomes a token of its own (its word from the table, "&" ->
// "and"). Each piece is normalised on its own from the original text; a piece that normalises to nothing
// (only ignored characters) still gives an empty token, so that tokens and ranges stay parallel.
void addNormalizedSearchTokens(QStringView text, QStringList& tokens,
                               QList<NBTextRange>& rangesInOriginalString);

// The stretches of `text` to highlight for the already normalised query tokens `searchTokens`: for each
// query token in turn, one range for every token of `text` that begins with it, narrowed to the part of the
// original text that still normalises to something beginning with the query token (query "cell" in
// "cells" highlights "cell"; ignored characters in front of a word are left out). An empty query token
// matches nothing. The ranges come in the order found, neither sorted nor merged. Narrowing steps over a
// character outside the Basic Multilingual Plane as a whole, so no range ends or begins inside one. Its cost
// is linear in the length of the word (see the .cpp), so a hit in a sequence of 100,000 letters is cheap.
QList<NBTextRange> rangesForSearchTokens(QStringView text, const QStringList& searchTokens);

// Consistency checks of the fixed data, run once when the data is built; each reports a failure through
// nbRaiseAssertion with its message and returns whether the data passed.

// `set` must hold as many characters as `definingCharacters` has units (no character listed twice).
bool checkCharacterSetCount(const NBCharacterSet& set, QStringView definingCharacters);
// The token separators and the ignored characters must have no character in common.
bool checkTokenSeparatorsAreNotIgnored(const NBCharacterSet& tokenSeparators, const NBCharacterSet& ignored);
// Keys hold no whitespace; a value either holds no whitespace at all, or begins and ends with a space and
// holds a word of at least one character and no other whitespace in between. `operationName` names the
// table in the messages.
bool checkCharacterNormalizationDictionary(const QMap<QString, QString>& dictionary,
                                           const QString& operationName);
