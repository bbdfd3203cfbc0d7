#include "foundation/texts.h"

#include <QFile>
#include <QRegularExpression>
#include <QtTest>

using namespace quill;

namespace {

const QString kBuiltin = QStringLiteral(":/quill/strings_se.tsv");
const QString kUkFile = QStringLiteral(QUILL_SOURCE_DIR "/lang/BrixaLangUK.Language");

QByteArray readAll(const QString& path)
{
    QFile f(path);
    return f.open(QIODevice::ReadOnly) ? f.readAll() : QByteArray();
}

// Lines meant as entries. A line the parser drops (no tab, bad id) or a
// repeated id makes the parsed table smaller than this.
int entryLines(const QByteArray& data)
{
    int n = 0;
    for (const QByteArray& line : data.split('\n'))
        if (!line.trimmed().isEmpty() && !line.startsWith('#'))
            ++n;
    return n;
}

QStringList placeholders(const QString& text)
{
    static const QRegularExpression re(QStringLiteral("ARG#\\d+"),
                                       QRegularExpression::CaseInsensitiveOption);
    QStringList out;
    for (auto it = re.globalMatch(text); it.hasNext();)
        out << it.next().captured().toUpper();
    out.sort();
    out.removeDuplicates();
    return out;
}

QString idList(const QSet<qint32>& ids)
{
    QStringList s;
    for (qint32 id : ids)
        s << QString::number(id);
    s.sort();
    return s.join(QLatin1Char(' '));
}

} // namespace

class TestStringTable : public QObject
{
    Q_OBJECT

    QHash<qint32, QString> m_se;
    QHash<qint32, QString> m_uk;

private slots:
    // Every line of both tables parses, to a text without blanks at its ends.
    void initTestCase()
    {
        for (const auto& [path, table] : {std::pair{kBuiltin, &m_se}, std::pair{kUkFile, &m_uk}}) {
            const QByteArray data = readAll(path);
            QVERIFY2(!data.isEmpty(), qPrintable(path));
            *table = ParseStringTable(data);
            QCOMPARE(table->size(), entryLines(data));
            for (auto it = table->cbegin(); it != table->cend(); ++it)
                QVERIFY2(!it->isEmpty() && *it == it->trimmed(), qPrintable(QString::number(it.key())));
        }
    }

    void languagesAgree()
    {
        const QSet<qint32> se(m_se.keyBegin(), m_se.keyEnd());
        const QSet<qint32> uk(m_uk.keyBegin(), m_uk.keyEnd());
        QVERIFY2((se - uk).isEmpty(), qPrintable("missing in UK: " + idList(se - uk)));
        QVERIFY2((uk - se).isEmpty(), qPrintable("missing built in: " + idList(uk - se)));
        for (auto it = m_se.cbegin(); it != m_se.cend(); ++it) {
            const QString& en = m_uk.value(it.key());
            const QByteArray where = QByteArray::number(it.key());
            QVERIFY2(placeholders(*it) == placeholders(en), where.constData());
            QVERIFY2(it->contains(QLatin1Char('&')) == en.contains(QLatin1Char('&')), where.constData());
        }
    }

    // The status texts double as picture keys and the traffic and service
    // texts are compared to pick a picture, so each language must keep the
    // pairs equal and the alternatives apart.
    void indicatorTextsConsistent()
    {
        const QList<QPair<int, int>> same = {
            {12077, 12078}, {12051, 12079}, {12050, 12080}, {12074, 12081}, {12052, 12083}};
        for (const auto* t : {&m_se, &m_uk}) {
            for (const auto& p : same)
                QCOMPARE(t->value(p.first), t->value(p.second));
            QVERIFY(t->value(12084) != t->value(12085));
            const QSet<QString> traffic = {t->value(12138), t->value(12139), t->value(12140)};
            QCOMPARE(traffic.size(), 3);
        }
    }
};

QTEST_GUILESS_MAIN(TestStringTable)
#include "tst_stringtable.moc"
