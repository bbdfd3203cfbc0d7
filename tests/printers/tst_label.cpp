// Label layouts: parser, placeholders, Code 128 bars, rendering of our layouts.
#include "printers/label.h"

#include <QFile>
#include <QtTest>

using namespace quill;

namespace {

QString resource(const QString& name)
{
    QFile f(QStringLiteral(QUILL_SOURCE_DIR) + QStringLiteral("/src/resources/") + name);
    return f.open(QIODevice::ReadOnly) ? QString::fromUtf8(f.readAll()) : QString();
}

// Dark pixels inside a rectangle of the image.
int darkIn(const QImage& img, const QRect& r)
{
    int n = 0;
    for (int y = r.top(); y <= r.bottom(); ++y)
        for (int x = r.left(); x <= r.right(); ++x)
            n += qGray(img.pixel(x, y)) < 128;
    return n;
}

} // namespace

class TestLabel : public QObject {
    Q_OBJECT
private slots:
    void parse_data();
    void parse();
    void placeholders_data();
    void placeholders();
    void code128KnownSymbols();
    void barcodeIsDrawnAsItsBars();
    void ourLayoutsParse_data();
    void ourLayoutsParse();
    void testLabelRendersTextWhereTheLayoutSays();
};

void TestLabel::parse_data()
{
    QTest::addColumn<QString>("text");
    QTest::addColumn<bool>("ok");
    QTest::addColumn<int>("elements");
    QTest::addColumn<QString>("error"); // start of the error text

    QTest::newRow("minimal") << "label 100 50" << true << 0 << QString();
    QTest::newRow("comments and blanks") << "# x\n\n  label 100 50 # size\n# end" << true << 0 << QString();
    QTest::newRow("every element") << "label 400 300\ntext 1 2 20 \"a {1}\" bold center\n"
                                      "barcode 5 6 50 2 \"{2}\" text\nline 0 0 10 10 3\nbox 0 0 400 300\n"
                                   << true << 4 << QString();
    QTest::newRow("quote escapes") << "label 100 50\ntext 1 1 10 \"say \\\"hi\\\" \\\\ # not a comment\""
                                   << true << 1 << QString();
    QTest::newRow("CRLF lines") << "label 100 50\r\ntext 1 1 10 \"x\"\r\n" << true << 1 << QString();
    QTest::newRow("empty") << "" << false << 0 << "line 1: no label";
    QTest::newRow("element before label") << "text 1 1 10 \"x\"\nlabel 10 10" << false << 0
                                          << "line 1: label statement must come first";
    QTest::newRow("two labels") << "label 100 50\nlabel 100 50" << false << 0 << "line 2: second label";
    QTest::newRow("label too big") << "label 5000 50" << false << 0 << "line 1: label";
    QTest::newRow("unknown statement") << "label 100 50\n\nellipse 1 2 3" << false << 0 << "line 3: unknown";
    QTest::newRow("unterminated text") << "label 100 50\ntext 1 1 10 \"abc" << false << 0 << "line 2: unterminated";
    QTest::newRow("text without content") << "label 100 50\ntext 1 1 10" << false << 0 << "line 2: text";
    QTest::newRow("text bad option") << "label 100 50\ntext 1 1 10 \"x\" italic" << false << 0
                                     << "line 2: unknown text option";
    QTest::newRow("negative coordinate") << "label 100 50\nline -1 0 5 5" << false << 0 << "line 2: line";
    QTest::newRow("barcode module 0") << "label 100 50\nbarcode 1 1 20 0 \"x\"" << false << 0
                                      << "line 2: barcode";
    QTest::newRow("box without size") << "label 100 50\nbox 1 1 0 5" << false << 0 << "line 2: box";
}

void TestLabel::parse()
{
    QFETCH(QString, text);
    QFETCH(bool, ok);
    QFETCH(int, elements);
    QFETCH(QString, error);
    LabelLayout layout;
    QString why;
    QCOMPARE(ParseLabelLayout(text, &layout, &why), ok);
    if (ok)
        QCOMPARE(layout.elements.size(), elements);
    else
        QVERIFY2(why.startsWith(error), qPrintable(why));
}

void TestLabel::placeholders_data()
{
    QTest::addColumn<QString>("content");
    QTest::addColumn<QString>("filled");
    QTest::newRow("none") << "plain" << "plain";
    QTest::newRow("one") << "{1}" << "Brixa";
    QTest::newRow("around text") << "a{1}b{12}c" << "aBrixabTolvc";
    QTest::newRow("missing is empty") << "[{3}]" << "[]";
    QTest::newRow("not a placeholder") << "{x} {} {1234} {-1}" << "{x} {} {1234} {-1}";
    QTest::newRow("value is not re-read") << "{2}" << "{1}";
}

void TestLabel::placeholders()
{
    QFETCH(QString, content);
    QFETCH(QString, filled);
    const QMap<int, QString> vars{{1, QStringLiteral("Brixa")}, {2, QStringLiteral("{1}")}, {12, QStringLiteral("Tolv")}};
    QCOMPARE(FillPlaceholders(content, vars), filled);
}

void TestLabel::code128KnownSymbols()
{
    // "A": start B 211214, 'A' 111323, check (104 + 33) % 103 = 34 -> 131123, stop 2331112.
    const QVector<int> a = Code128Widths(QStringLiteral("A"));
    const QVector<int> expected{2, 1, 1, 2, 1, 4, 1, 1, 1, 3, 2, 3, 1, 3, 1, 1, 2, 3, 2, 3, 3, 1, 1, 1, 2};
    QCOMPARE(a, expected);
    // "Wikipedia" has the check value 88 (421211), just before the stop.
    const QVector<int> w = Code128Widths(QStringLiteral("Wikipedia"));
    QCOMPARE(w.size(), 6 * 11 + 7);
    QCOMPARE(w.mid(w.size() - 13, 6), (QVector<int>{4, 2, 1, 2, 1, 1}));
    // Every symbol is 11 modules wide, the stop 13.
    int modules = 0;
    for (int v : w)
        modules += v;
    QCOMPARE(modules, 11 * 11 + 13);
}

void TestLabel::barcodeIsDrawnAsItsBars()
{
    LabelLayout layout;
    QVERIFY(ParseLabelLayout(QStringLiteral("label 200 40\nbarcode 10 5 30 1 \"A\""), &layout));
    const QImage img = RenderLabel(layout, {});
    // Read one row back into runs and compare with the widths.
    QVector<int> runs;
    bool dark = true;
    int run = 0;
    for (int x = 10; x < 200; ++x) {
        const bool d = qGray(img.pixel(x, 20)) < 128;
        if (d == dark)
            ++run;
        else {
            runs << run;
            run = 1;
            dark = d;
        }
    }
    QVERIFY(runs.size() >= 25);
    QCOMPARE(runs.mid(0, 25), Code128Widths(QStringLiteral("A")));
}

void TestLabel::ourLayoutsParse_data()
{
    QTest::addColumn<QString>("name");
    QTest::addColumn<QList<int>>("variables");
    QTest::newRow("0.lbl") << "0.lbl" << QList<int>{1};
    QTest::newRow("demo.lbl") << "demo.lbl" << QList<int>{7, 9, 11, 12, 14, 15, 16, 17};
}

void TestLabel::ourLayoutsParse()
{
    QFETCH(QString, name);
    QFETCH(QList<int>, variables);
    LabelLayout layout;
    QString why;
    QVERIFY2(ParseLabelLayout(resource(name), &layout, &why), qPrintable(why));
    QList<int> used = layout.variables().values();
    std::sort(used.begin(), used.end());
    QCOMPARE(used, variables);
}

void TestLabel::testLabelRendersTextWhereTheLayoutSays()
{
    LabelLayout layout;
    QVERIFY(ParseLabelLayout(resource(QStringLiteral("0.lbl")), &layout));
    const QImage empty = RenderLabel(layout, {});
    const QImage full = RenderLabel(layout, {{1, QStringLiteral("Brixa - Printerserver v1.0.0")}});
    QCOMPARE(full.size(), QSize(480, 320));
    // The version line (y 118..150) and the bars (y 170..260) come from variable 1.
    const QRect line(20, 118, 440, 32), bars(20, 170, 440, 90);
    QCOMPARE(darkIn(empty, line), 0);
    QCOMPARE(darkIn(empty, bars), 0);
    QVERIFY(darkIn(full, line) > 300);
    QVERIFY(darkIn(full, bars) > 5000);
    // The fixed title is there either way.
    QVERIFY(darkIn(empty, QRect(150, 18, 180, 50)) > 500);
    if (!qEnvironmentVariableIsEmpty("QUILL_LABEL_PNG"))
        full.save(qEnvironmentVariable("QUILL_LABEL_PNG"));
}

QTEST_MAIN(TestLabel)
#include "tst_label.moc"
