#include "foundation/cp1252.h"
#include "foundation/error.h"
#include "foundation/strutil.h"

#include <QTest>

using namespace quill;

class TestStrUtil : public QObject {
    Q_OBJECT
private slots:
    // GetToken and CountTokens read the same fields: every field of the text,
    // and nothing before the first or after the last.
    void tokens_data()
    {
        QTest::addColumn<QString>("text");
        QTest::addColumn<QString>("sep");
        QTest::addColumn<QStringList>("fields");
        QTest::newRow("request") << "BRIXA\t1.00\tP" << "\t" << QStringList{"BRIXA", "1.00", "P"};
        QTest::newRow("one leading and trailing sep stripped") << "\ta\tb\t" << "\t" << QStringList{"a", "b"};
        QTest::newRow("empty middle field") << "a||c" << "|" << QStringList{"a", "", "c"};
        QTest::newRow("only one sep stripped at end") << "a;b;;" << ";" << QStringList{"a", "b", ""};
        QTest::newRow("second leading sep kept") << ";;a" << ";" << QStringList{"", "a"};
        QTest::newRow("empty text") << "" << ";" << QStringList{};
        QTest::newRow("empty separator") << "a;b" << "" << QStringList{};
        QTest::newRow("text is only the separator") << ";" << ";" << QStringList{""};
        QTest::newRow("no separator present") << "abc" << ";" << QStringList{"abc"};
    }
    void tokens()
    {
        QFETCH(QString, text);
        QFETCH(QString, sep);
        QFETCH(QStringList, fields);
        QCOMPARE(CountTokens(text, sep), fields.size());
        for (int n = -3; n <= fields.size() + 1; ++n)
            QCOMPARE(GetToken(text, sep, n), fields.value(n - 1));
    }

    void positionsAreSixteenBit()
    {
        // A separator within the first 32767 characters is found as usual...
        const QString nearEnd = QString(32765, 'x') + "\tY";
        QCOMPARE(GetToken(nearEnd, "\t", 2), QString("Y"));
        // ...one beyond is an overflow the caller's trap sees.
        const QString beyond = QString(40000, 'x') + "\tY";
        try {
            GetToken(beyond, "\t", 2);
            QFAIL("no overflow raised");
        } catch (const Error& e) {
            QCOMPARE(e.number, ErrOverflow);
        }
        QVERIFY_THROWS_EXCEPTION(Error, CountTokens(beyond, "\t"));
        // Long text without any separator holds no position to overflow.
        QCOMPARE(CountTokens(QString(100000, 'x'), "\t"), 1);
    }

    void replaceAll_data()
    {
        QTest::addColumn<QString>("text");
        QTest::addColumn<QString>("search");
        QTest::addColumn<QString>("repl");
        QTest::addColumn<QString>("result");
        QTest::newRow("simple") << "a-b-c" << "-" << "+" << "a+b+c";
        QTest::newRow("replacement holds the search text") << "aXa" << "a" << "aa" << "aaXaa";
        QTest::newRow("empty search") << "abc" << "" << "z" << "abc";
        QTest::newRow("to nothing") << "a\r\nb" << "\r\n" << "" << "ab";
    }
    void replaceAll()
    {
        QFETCH(QString, text);
        QFETCH(QString, search);
        QFETCH(QString, repl);
        QTEST(StrReplaceAll(text, search, repl), "result");
    }

    // The database readers, with -1 (or "d") for a missing value.
    void converters_data()
    {
        QTest::addColumn<QVariant>("value");
        QTest::addColumn<int>("asLong");
        QTest::addColumn<int>("asInt");
        QTest::addColumn<QString>("asStr");
        QTest::newRow("numeric text") << QVariant("12") << 12 << 12 << "12";
        QTest::newRow("empty text") << QVariant("") << -1 << -1 << "d";
        QTest::newRow("null") << QVariant() << -1 << -1 << "d";
        QTest::newRow("non-numeric") << QVariant("abc") << -1 << -1 << "abc";
        QTest::newRow("blanks around") << QVariant(" 7 ") << 7 << 7 << " 7 ";
        QTest::newRow("half rounds to even, down") << QVariant("2.5") << 2 << 2 << "2.5";
        QTest::newRow("half rounds to even, up") << QVariant("3.5") << 4 << 4 << "3.5";
        QTest::newRow("negative half") << QVariant("-2.5") << -2 << -2 << "-2.5";
        QTest::newRow("fraction") << QVariant(2.6) << 3 << 3 << "2.6";
        QTest::newRow("beyond 16 bits") << QVariant("40000") << 40000 << -1 << "40000";
        QTest::newRow("ten-digit registry number") << QVariant("0000000046") << 46 << 46 << "0000000046";
        QTest::newRow("above 32-bit signed") << QVariant("4294967295") << -1 << -1 << "4294967295";
        QTest::newRow("integer value") << QVariant(qint64(20001)) << 20001 << 20001 << "20001";
    }
    void converters()
    {
        QFETCH(QVariant, value);
        QTEST(NullToLong(value, -1), "asLong");
        QTEST(int(NullToInt(value, -1)), "asInt");
        QTEST(NullToStr(value, "d"), "asStr");
    }

    void addBackslash()
    {
        QCOMPARE(AddBackslash(""), QString(""));
        QCOMPARE(AddBackslash("C:\\Brixa"), QString("C:\\Brixa\\"));
        QCOMPARE(AddBackslash("C:\\"), QString("C:\\"));
        QCOMPARE(AddSlash("/opt/q"), QString("/opt/q/"));
        QCOMPARE(AddSlash("/"), QString("/"));
    }

    void keyAllowed_data()
    {
        QTest::addColumn<int>("key");
        QTest::addColumn<QString>("pattern");
        QTest::addColumn<bool>("allowed");
        const QString numeric = "0-9;[16];[8]";
        QTest::newRow("backspace") << 8 << numeric << true;
        QTest::newRow("letter A") << 65 << numeric << false;
        QTest::newRow("digit 0") << int('0') << numeric << true;
        QTest::newRow("digit 9") << int('9') << numeric << true;
        QTest::newRow("shift code") << 16 << numeric << true;
        QTest::newRow("code range low") << 48 << "[48-57]" << true;
        QTest::newRow("code range out") << 58 << "[48-57]" << false;
        QTest::newRow("single char") << int('.') << "a-c;." << true;
        QTest::newRow("char range") << int('b') << "a-c;." << true;
        QTest::newRow("empty pattern") << 65 << "" << false;
    }
    void keyAllowed()
    {
        QFETCH(int, key);
        QFETCH(QString, pattern);
        QTEST(KeyAllowed(key, pattern), "allowed");
    }

    void deviceResults_data()
    {
        QTest::addColumn<int>("status");
        QTest::addColumn<QString>("result");
        QTest::newRow("ready") << 0 << "OK\t";
        QTest::newRow("ribbon before paper") << 5 << "ERR\tSlut på färgband";
        QTest::newRow("paper") << 1 << "ERR\tSlut på papper";
        QTest::newRow("head raised") << 8 << "ERR\tPrinterhuvud uppfällt";
        QTest::newRow("unrelated bit") << 2 << "OK\t";
    }
    void deviceResults()
    {
        QFETCH(int, status);
        QTEST(DeviceStatusResult(status), "result");
    }
    void deviceErrorTexts()
    {
        QCOMPARE(DeviceErrorText(-2), QString("Kommunikationsproblem"));
        QCOMPARE(DeviceErrorText(-8), QString("Slut på minne"));
        QCOMPARE(DeviceErrorText(-6), QString("Okänt fel"));
    }

    void cp1252RoundTrip()
    {
        const QString swedish = QStringLiteral("Slut på färgband – €5 ÅÄÖ");
        const QByteArray bytes = ToCp1252(swedish);
        QCOMPARE(bytes.size(), swedish.size());
        QCOMPARE(uchar(bytes.at(swedish.indexOf(u'å'))), uchar(0xE5));
        QCOMPARE(uchar(bytes.at(swedish.indexOf(u'€'))), uchar(0x80));
        QCOMPARE(uchar(bytes.at(swedish.indexOf(u'–'))), uchar(0x96));
        QCOMPARE(FromCp1252(bytes), swedish);
        // Every byte decodes to something and back to itself.
        QByteArray all(256, 0);
        for (int i = 0; i < 256; ++i)
            all[i] = char(i);
        QCOMPARE(ToCp1252(FromCp1252(all)), all);
        QCOMPARE(ToCp1252(QStringLiteral("漢")), QByteArray("?"));
    }
};

QTEST_GUILESS_MAIN(TestStrUtil)
#include "tst_strutil.moc"
