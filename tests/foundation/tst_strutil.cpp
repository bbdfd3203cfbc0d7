#include "foundation/cp1252.h"
#include "foundation/error.h"
#include "foundation/strutil.h"

#include <QTest>

using namespace quill;

class TestStrUtil : public QObject {
    Q_OBJECT
private slots:
    void getToken_data();
    void getToken();
    void countTokens_data();
    void countTokens();
    void positionsAreSixteenBit();
    void replaceAll_data();
    void replaceAll();
    void converters_data();
    void converters();
    void nullToStr();
    void addBackslash();
    void keyAllowed_data();
    void keyAllowed();
    void deviceResults_data();
    void deviceResults();
    void cp1252RoundTrip();
};

void TestStrUtil::getToken_data()
{
    QTest::addColumn<QString>("text");
    QTest::addColumn<QString>("sep");
    QTest::addColumn<int>("n");
    QTest::addColumn<QString>("field");
    const QString req = "BRIXA\t1.00\tP";
    QTest::newRow("third field") << req << "\t" << 3 << "P";
    QTest::newRow("past the end") << req << "\t" << 4 << "";
    QTest::newRow("first field") << req << "\t" << 1 << "BRIXA";
    QTest::newRow("one leading and trailing sep stripped") << "\ta\tb\t" << "\t" << 2 << "b";
    QTest::newRow("empty middle field") << "a||c" << "|" << 2 << "";
    QTest::newRow("after empty field") << "a||c" << "|" << 3 << "c";
    QTest::newRow("only one sep stripped at end") << "a;b;" << ";" << 2 << "b";
    QTest::newRow("no third after strip") << "a;b;" << ";" << 3 << "";
    QTest::newRow("second leading sep kept") << ";;a" << ";" << 1 << "";
    QTest::newRow("second leading sep kept, field 2") << ";;a" << ";" << 2 << "a";
    QTest::newRow("n zero") << "a;b" << ";" << 0 << "";
    QTest::newRow("n negative") << "a;b" << ";" << -3 << "";
    QTest::newRow("empty text") << "" << ";" << 1 << "";
    QTest::newRow("empty separator") << "a;b" << "" << 1 << "";
    QTest::newRow("text is only the separator") << ";" << ";" << 1 << "";
    QTest::newRow("no separator present") << "abc" << ";" << 1 << "abc";
}

void TestStrUtil::getToken()
{
    QFETCH(QString, text);
    QFETCH(QString, sep);
    QFETCH(int, n);
    QFETCH(QString, field);
    QCOMPARE(GetToken(text, sep, n), field);
}

void TestStrUtil::countTokens_data()
{
    QTest::addColumn<QString>("text");
    QTest::addColumn<QString>("sep");
    QTest::addColumn<int>("count");
    QTest::newRow("empty") << "" << "\t" << 0;
    QTest::newRow("no separator") << "abc" << "\t" << 1;
    QTest::newRow("three fields") << "BRIXA\t1.00\tP" << "\t" << 3;
    QTest::newRow("ends stripped once") << "\ta\tb\t" << "\t" << 2;
    QTest::newRow("trailing sep") << "a;b;" << ";" << 2;
    QTest::newRow("double leading") << ";;a" << ";" << 2;
    QTest::newRow("empty separator") << "a;b" << "" << 0;
}

void TestStrUtil::countTokens()
{
    QFETCH(QString, text);
    QFETCH(QString, sep);
    QFETCH(int, count);
    QCOMPARE(CountTokens(text, sep), count);
}

void TestStrUtil::positionsAreSixteenBit()
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

void TestStrUtil::replaceAll_data()
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

void TestStrUtil::replaceAll()
{
    QFETCH(QString, text);
    QFETCH(QString, search);
    QFETCH(QString, repl);
    QFETCH(QString, result);
    QCOMPARE(StrReplaceAll(text, search, repl), result);
}

void TestStrUtil::converters_data()
{
    QTest::addColumn<QVariant>("value");
    QTest::addColumn<int>("asLong");
    QTest::addColumn<int>("asInt");
    QTest::newRow("numeric text") << QVariant("12") << 12 << 12;
    QTest::newRow("empty text") << QVariant("") << -1 << -1;
    QTest::newRow("null") << QVariant() << -1 << -1;
    QTest::newRow("non-numeric") << QVariant("abc") << -1 << -1;
    QTest::newRow("blanks around") << QVariant(" 7 ") << 7 << 7;
    QTest::newRow("half rounds to even, down") << QVariant("2.5") << 2 << 2;
    QTest::newRow("half rounds to even, up") << QVariant("3.5") << 4 << 4;
    QTest::newRow("negative half") << QVariant("-2.5") << -2 << -2;
    QTest::newRow("fraction") << QVariant(2.6) << 3 << 3;
    QTest::newRow("beyond 16 bits") << QVariant("40000") << 40000 << -1;
    QTest::newRow("ten-digit registry number") << QVariant("0000000046") << 46 << 46;
    QTest::newRow("above 32-bit signed") << QVariant("4294967295") << -1 << -1;
    QTest::newRow("integer value") << QVariant(qint64(20001)) << 20001 << 20001;
}

void TestStrUtil::converters()
{
    QFETCH(QVariant, value);
    QFETCH(int, asLong);
    QFETCH(int, asInt);
    QCOMPARE(NullToLong(value, -1), asLong);
    QCOMPARE(int(NullToInt(value, -1)), asInt);
}

void TestStrUtil::nullToStr()
{
    QCOMPARE(NullToStr(QVariant(), "d"), QString("d"));
    QCOMPARE(NullToStr(QVariant(""), "d"), QString("d"));
    QCOMPARE(NullToStr(QVariant(5), "d"), QString("5"));
}

void TestStrUtil::addBackslash()
{
    QCOMPARE(AddBackslash(""), QString(""));
    QCOMPARE(AddBackslash("C:\\Brixa"), QString("C:\\Brixa\\"));
    QCOMPARE(AddBackslash("C:\\"), QString("C:\\"));
    QCOMPARE(AddSlash("/opt/q"), QString("/opt/q/"));
    QCOMPARE(AddSlash("/"), QString("/"));
}

void TestStrUtil::keyAllowed_data()
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

void TestStrUtil::keyAllowed()
{
    QFETCH(int, key);
    QFETCH(QString, pattern);
    QFETCH(bool, allowed);
    QCOMPARE(KeyAllowed(key, pattern), allowed);
}

void TestStrUtil::deviceResults_data()
{
    QTest::addColumn<int>("status");
    QTest::addColumn<QString>("result");
    QTest::newRow("ready") << 0 << "OK\t";
    QTest::newRow("ribbon before paper") << 5 << "ERR\tSlut på färgband";
    QTest::newRow("paper") << 1 << "ERR\tSlut på papper";
    QTest::newRow("head raised") << 8 << "ERR\tPrinterhuvud uppfällt";
    QTest::newRow("unrelated bit") << 2 << "OK\t";
}

void TestStrUtil::deviceResults()
{
    QFETCH(int, status);
    QFETCH(QString, result);
    QCOMPARE(DeviceStatusResult(status), result);
    QCOMPARE(DeviceErrorText(-2), QString("Kommunikationsproblem"));
    QCOMPARE(DeviceErrorText(-8), QString("Slut på minne"));
    QCOMPARE(DeviceErrorText(-6), QString("Okänt fel"));
}

void TestStrUtil::cp1252RoundTrip()
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

QTEST_GUILESS_MAIN(TestStrUtil)
#include "tst_strutil.moc"
