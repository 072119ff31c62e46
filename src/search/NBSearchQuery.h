// What the user types into a search field, in the search form the indexes hold.
//
// Indexes store text in its search form (search/NBSearchNormalization.h), so the words of a query must be
// normalised the same way before NBSQLiteFTS4SearchIndex::formattedQueryFromQuery turns the query into a
// MATCH expression; but the query's own syntax must survive that: the operators OR and AND typed in
// capitals, parentheses, and a quotation mark at the start (a quoted query is a list of prefixes). So each
// word is normalised on its own, and the syntax around it is kept:
//
//   "Ångström OR ＰＣＲ"      ->  "angstrom OR pcr"
//   "(α-helix OR β) Müller"   ->  "(alpha helix OR beta) muller"
//   "\"5 µL\""                ->  "\"5 mu l\""
//
// A word that normalises to nothing ("©") is left out; one that normalises to several words ("α-helix")
// gives them all, each a prefix term that must occur.
#pragma once

#include <QString>
#include <QStringList>
#include <QStringView>

// The query with its words in their search form and its syntax kept (see above).
QString normalizedQueryForSearch(QStringView query);

// The normalised words of the query without its operators and parentheses, each once, in order: the
// search tokens that highlight its hits (rangesForSearchTokens).
QStringList searchTokensForQuery(QStringView query);
