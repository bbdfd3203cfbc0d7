#include "foundation/texts.h"
#include "foundation/paths.h"

#include <QFile>

namespace quill {

namespace {

struct LangData {
    QString countryCode = QStringLiteral("SE");
    qint32 countryNo = 46;
    int state = 0;
    QString activeCode; // the language file in use with state 1
    QHash<qint32, QString> component;
};

LangData& lang()
{
    static LangData s;
    return s;
}

const QHash<qint32, QString>& builtinTable()
{
    static const QHash<qint32, QString> table = [] {
        QFile f(QStringLiteral(":/quill/strings_se.tsv"));
        f.open(QIODevice::ReadOnly);
        return ParseStringTable(f.readAll());
    }();
    return table;
}

QString unescape(QStringView s)
{
    QString out;
    out.reserve(s.size());
    for (qsizetype i = 0; i < s.size(); ++i) {
        if (s[i] == QLatin1Char('\\') && i + 1 < s.size()) {
            const QChar n = s[++i];
            if (n == QLatin1Char('n'))
                out += QLatin1Char('\n');
            else if (n == QLatin1Char('r'))
                out += QLatin1Char('\r');
            else if (n == QLatin1Char('t'))
                out += QLatin1Char('\t');
            else
                out += n;
        } else {
            out += s[i];
        }
    }
    return out;
}

bool loadComponent(const QString& code)
{
    QFile f(LanguageFilePath(code));
    if (!f.open(QIODevice::ReadOnly))
        return false;
    lang().component = ParseStringTable(f.readAll());
    lang().activeCode = code;
    return true;
}

// Tries the configured country's component, then the Swedish one.
bool languageStart(const QString& code)
{
    return loadComponent(code) || loadComponent(QStringLiteral("SE"));
}

QString missing(qint32 id) { return QStringLiteral("String missing:") + QString::number(id); }

} // namespace

QHash<qint32, QString> ParseStringTable(const QByteArray& utf8)
{
    QHash<qint32, QString> table;
    const QString text = QString::fromUtf8(utf8);
    for (QStringView line : QStringView(text).split(QLatin1Char('\n'))) {
        if (line.endsWith(QLatin1Char('\r')))
            line.chop(1);
        const qsizetype tab = line.indexOf(QLatin1Char('\t'));
        if (tab <= 0 || line.startsWith(QLatin1Char('#')))
            continue;
        bool ok = false;
        const qint32 id = line.left(tab).trimmed().toInt(&ok);
        if (ok)
            table.insert(id, unescape(line.mid(tab + 1)));
    }
    return table;
}

QString LanguageFilePath(const QString& countryCode)
{
    return HomePath(QStringLiteral("lang/BrixaLang") + countryCode.toUpper() + QStringLiteral(".Language"));
}

QString FillArgs(const QString& text, const QString& args)
{
    if (args.isEmpty())
        return text;
    QString out = text;
    const QStringList parts = args.split(QLatin1Char('|'));
    for (int i = 0; i < parts.size(); ++i)
        out.replace(QStringLiteral("ARG#") + QString::number(i + 1), parts[i], Qt::CaseInsensitive);
    return out;
}

QString GetString(qint32 id, const QString& args)
{
    LangData& s = lang();
    if (s.state == 0)
        s.state = languageStart(s.countryCode) ? 1 : 2;
    const QHash<qint32, QString>& table = s.state == 1 ? s.component : builtinTable();
    const auto it = table.constFind(id);
    if (it == table.constEnd())
        return missing(id);
    return FillArgs(*it, args);
}

void SetLanguageSettings(const QString& countryCode, qint32 countryNo)
{
    lang().countryCode = countryCode.isEmpty() ? QStringLiteral("SE") : countryCode.toUpper();
    lang().countryNo = countryNo;
}

QString CountryCode() { return lang().countryCode; }
qint32 CountryNo() { return lang().countryNo; }
int LanguageState() { return lang().state; }

void ResetLanguage()
{
    lang().state = 0;
    lang().component.clear();
    lang().activeCode.clear();
}

QString CountryCodeFromNumber(qint32 countryNo)
{
    switch (countryNo) {
    case 44: return QStringLiteral("UK");
    case 45: return QStringLiteral("DK");
    case 46: return QStringLiteral("SE");
    case 47: return QStringLiteral("NO");
    case 358: return QStringLiteral("FI");
    default: return QStringLiteral("XX");
    }
}

QString LanguageName(const QString& countryCode)
{
    const QString c = countryCode.toUpper();
    if (c == QLatin1String("UK")) return QStringLiteral("English(UK)");
    if (c == QLatin1String("DK")) return QStringLiteral("Danish");
    if (c == QLatin1String("NO")) return QStringLiteral("Norwegian");
    if (c == QLatin1String("SE")) return QStringLiteral("Swedish");
    if (c == QLatin1String("FI")) return QStringLiteral("Finnish");
    return QStringLiteral("Unknown");
}

QString LanguageDisplayText()
{
    switch (lang().state) {
    case 1: return LanguageName(lang().countryCode);
    case 2: return QStringLiteral("Default (") + LanguageName(QStringLiteral("SE")) + QLatin1Char(')');
    default: return {};
    }
}

QString LocaliseCaption(const QString& caption)
{
    QString marker;
    if (caption.startsWith(QLatin1String("##")))
        marker = QStringLiteral("##");
    else if (caption.startsWith(QStringLiteral("#£")))
        marker = QStringLiteral("#£");
    else
        return caption;
    QString rest = caption;
    rest.remove(marker);
    bool ok = false;
    const qint32 id = rest.section(QLatin1Char('#'), 0, 0).toInt(&ok);
    if (!ok)
        return caption;
    const QString text = GetString(id);
    return marker == QLatin1String("##") ? QLatin1Char(' ') + text : text;
}

} // namespace quill
