#pragma once
#include <QHash>
#include <QString>

namespace quill {

// Texts by number. The first request decides the source for the whole run: the
// language file of the configured country, else the Swedish one, else the
// built-in Swedish table.
QString GetString(qint32 id, const QString& args = {});

// Read at start-up before the first text is requested.
void SetLanguageSettings(const QString& countryCode, qint32 countryNo);
QString CountryCode();
qint32 CountryNo();

// 0 not yet decided, 1 language file in use, 2 built-in table in use.
int LanguageState();
// Forgets the decision so the next request decides again (tests, restarts).
void ResetLanguage();

QString CountryCodeFromNumber(qint32 countryNo);
QString LanguageName(const QString& countryCode);
QString LanguageDisplayText();

// "##<id>#default" gives " " + text, "#£<id>#default" gives the text; any other
// caption, or one whose number is not a number, is returned unchanged.
QString LocaliseCaption(const QString& caption);

// "ARG#1".."ARG#k" replaced in order, ignoring case.
QString FillArgs(const QString& text, const QString& args);

// The parsing of a table file: "id TAB text" per line, with \n, \t and \\ escapes.
QHash<qint32, QString> ParseStringTable(const QByteArray& utf8);
// The path of the language file for a country code.
QString LanguageFilePath(const QString& countryCode);

} // namespace quill
