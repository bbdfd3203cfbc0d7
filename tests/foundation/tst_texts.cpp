#include "foundation/paths.h"
#include "foundation/texts.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>
#include <QTest>

using namespace quill;

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
        QTest::newRow("no bar is one part") << "ARG#1/ARG#2" << "a b" << "a b/ARG#2";
        QTest::newRow("empty args leave placeholder") << "ARG#1" << "" << "ARG#1";
        QTest::newRow("repeated placeholder") << "ARG#1-ARG#1" << "z" << "z-z";
        QTest::newRow("ARG#10 gets part 1 and a zero") << "ARG#10" << "a|b|c|d|e|f|g|h|i|j" << "a0";
        QTest::newRow("empty part") << "[ARG#1][ARG#2]" << "|x" << "[][x]";
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
        QCOMPARE(GetString(9003), QString("Brixa - Printerserver"));
        QCOMPARE(LanguageState(), 2);
        QCOMPARE(GetString(12055, "Skrivare 1|Server"), QString("Skrivare 1 på Server"));
        QCOMPARE(GetString(12345), QString("String missing:12345"));
        QCOMPARE(GetString(-7), QString("String missing:-7"));
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
        QCOMPARE(LanguageState(), 0);
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
        QTest::newRow("missing id") << "#£12999#x" << "String missing:12999";
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
        QCOMPARE(LanguageName("se"), QString("Swedish"));
        QCOMPARE(LanguageName("XX"), QString("Unknown"));
        QCOMPARE(LanguageDisplayText(), QString()); // nothing decided yet
    }
};

QTEST_GUILESS_MAIN(TestTexts)
#include "tst_texts.moc"
