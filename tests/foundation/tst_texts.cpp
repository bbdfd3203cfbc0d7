// Texts by number: the language files, the built-in table and its English
// twin, placeholders and captions.
#include "foundation/paths.h"
#include "foundation/texts.h"

#include <QDir>
#include <QFile>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QTest>

using namespace quill;

namespace {

// Each table's entries, and the lines meant as entries: a line the parser
// drops (no tab, bad id) or a repeated id makes the table smaller.
QHash<qint32, QString> readTable(const QString& path, int* entryLines)
{
    QFile f(path);
    const QByteArray data = f.open(QIODevice::ReadOnly) ? f.readAll() : QByteArray();
    *entryLines = 0;
    for (const QByteArray& line : data.split('\n'))
        *entryLines += !line.trimmed().isEmpty() && !line.startsWith('#');
    return ParseStringTable(data);
}

QStringList argsIn(const QString& text)
{
    static const QRegularExpression re(QStringLiteral("ARG#\\d+"), QRegularExpression::CaseInsensitiveOption);
    QStringList out;
    for (auto it = re.globalMatch(text); it.hasNext();)
        out << it.next().captured().toUpper();
    out.sort();
    out.removeDuplicates();
    return out;
}

} // namespace

class TestTexts : public QObject {
    Q_OBJECT
    QTemporaryDir dir;
    void writeLanguage(const QString& cc, const QByteArray& content)
    {
        QDir(dir.path()).mkpath("lang");
        QFile f(dir.path() + "/lang/BrixaLang" + cc + ".Language");
        QVERIFY(f.open(QIODevice::WriteOnly | QIODevice::Truncate));
        f.write(content);
    }
private slots:
    void initTestCase()
    {
        QVERIFY(dir.isValid());
        SetHomeDir(dir.path());
    }
    void init()
    {
        QDir(dir.path() + "/lang").removeRecursively();
        SetLanguageSettings("SE", 46);
        ResetLanguage();
    }

    void placeholders_data()
    {
        QTest::addColumn<QString>("text");
        QTest::addColumn<QString>("args");
        QTest::addColumn<QString>("result");
        QTest::newRow("two args") << "ARG#1 på ARG#2" << "Skrivare 1|Server" << "Skrivare 1 på Server";
        QTest::newRow("lower case placeholder") << "arg#1 x" << "A" << "A x";
        QTest::newRow("empty args leave placeholder") << "ARG#1" << "" << "ARG#1";
        QTest::newRow("ARG#10 gets part 1 and a zero") << "ARG#10" << "a|b|c|d|e|f|g|h|i|j" << "a0";
    }
    void placeholders()
    {
        QFETCH(QString, text);
        QFETCH(QString, args);
        QTEST(FillArgs(text, args), "result");
    }

    // Without a language file the built-in table answers, and that is decided
    // once per run: a file that turns up later is read after a reset only.
    void builtinTable()
    {
        QCOMPARE(LanguageDisplayText(), QString()); // nothing decided yet
        QCOMPARE(GetString(9003), QString("Brixa - Printerserver"));
        QCOMPARE(LanguageState(), 2);
        QCOMPARE(GetString(12345), QString("String missing:12345"));
        QCOMPARE(LanguageDisplayText(), QString("Default (Swedish)"));
        writeLanguage("SE", "9003\tlater\n");
        QCOMPARE(GetString(9003), QString("Brixa - Printerserver"));
        ResetLanguage();
        QCOMPARE(GetString(9003), QString("later"));
    }

    void languageOrder_data()
    {
        QTest::addColumn<QString>("configured");
        QTest::addColumn<QStringList>("installed");
        QTest::addColumn<QString>("title");
        QTest::addColumn<int>("state");
        QTest::newRow("configured country first") << "dk" << QStringList{"DK", "SE"} << "DK title" << 1;
        QTest::newRow("falls back to Swedish file") << "NO" << QStringList{"SE"} << "SE title" << 1;
        QTest::newRow("no file: built-in table") << "UK" << QStringList{} << "Brixa - Printerserver" << 2;
    }
    void languageOrder()
    {
        QFETCH(QString, configured);
        QFETCH(QStringList, installed);
        QFETCH(int, state);
        for (const QString& cc : installed)
            writeLanguage(cc, "# comment\n9003\t" + cc.toUtf8() + " title\n12055\tARG#1 @ ARG#2\\nnext\n");
        SetLanguageSettings(configured, 45);
        QTEST(GetString(9003), "title");
        QCOMPARE(LanguageState(), state);
        if (state == 1) {
            QCOMPARE(GetString(12055, "u|w"), QString("u @ w\nnext"));
            QCOMPARE(GetString(12056), QString("String missing:12056"));
            QCOMPARE(LanguageDisplayText(), LanguageName(configured));
        }
    }

    void captions_data()
    {
        QTest::addColumn<QString>("caption");
        QTest::addColumn<QString>("result");
        QTest::newRow("## gives a leading blank") << "##9003#Brixa - Printerserver" << " Brixa - Printerserver";
        QTest::newRow("#£ gives the text") << "#£9003#x" << "Brixa - Printerserver";
        QTest::newRow("no marker") << "Plain" << "Plain";
        QTest::newRow("number not a number") << "#£abc#Default" << "#£abc#Default";
    }
    void captions()
    {
        QFETCH(QString, caption);
        QTEST(LocaliseCaption(caption), "result");
    }

    void lookups()
    {
        QCOMPARE(CountryCodeFromNumber(44), QString("UK"));
        QCOMPARE(CountryCodeFromNumber(1), QString("XX"));
        QCOMPARE(LanguageName("uk"), QString("English(UK)"));
        QCOMPARE(LanguageName("XX"), QString("Unknown"));
    }

    // Both tables parse line by line to texts without blanks at their ends,
    // hold the same numbers with the same placeholders and accelerators, and
    // keep the texts that double as picture keys equal in pairs and apart.
    void tablesAgree()
    {
        int seLines = 0, ukLines = 0;
        const QHash<qint32, QString> se = readTable(":/quill/strings_se.tsv", &seLines);
        const QHash<qint32, QString> uk = readTable(QUILL_SOURCE_DIR "/lang/BrixaLangUK.Language", &ukLines);
        QVERIFY(!se.isEmpty());
        QCOMPARE(se.size(), seLines);
        QCOMPARE(uk.size(), ukLines);
        QCOMPARE(QSet<qint32>(uk.keyBegin(), uk.keyEnd()), QSet<qint32>(se.keyBegin(), se.keyEnd()));
        for (const auto* table : {&se, &uk}) {
            for (auto it = table->cbegin(); it != table->cend(); ++it)
                QVERIFY2(!it->isEmpty() && *it == it->trimmed(), qPrintable(QString::number(it.key())));
            for (const auto& [a, b] : {std::pair{12077, 12078}, {12051, 12079}, {12050, 12080}, {12074, 12081},
                                       {12052, 12083}})
                QCOMPARE(table->value(a), table->value(b));
            QVERIFY(table->value(12084) != table->value(12085));
            QCOMPARE(QSet<QString>({table->value(12138), table->value(12139), table->value(12140)}).size(), 3);
        }
        for (auto it = se.cbegin(); it != se.cend(); ++it) {
            const QByteArray where = QByteArray::number(it.key());
            QVERIFY2(argsIn(*it) == argsIn(uk[it.key()]), where.constData());
            QVERIFY2(it->contains('&') == uk[it.key()].contains('&'), where.constData());
        }
    }
};

QTEST_GUILESS_MAIN(TestTexts)
#include "tst_texts.moc"
