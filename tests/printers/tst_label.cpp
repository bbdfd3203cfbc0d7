// Label layouts: parser, placeholders, Code 128 bars, rendering of our layouts.
#include "label/label.h"

#include <QFile>
#include <QtTest>

#include <numeric>

using namespace quill;

namespace {

QString resource(const QString& name)
{
    QFile f(QStringLiteral(QUILL_SOURCE_DIR "/src/resources/") + name);
    return f.open(QIODevice::ReadOnly) ? QString::fromUtf8(f.readAll()) : QString();
}

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
    void placeholders();
    void code128Bars();
    void ourLayouts();
};

void TestLabel::parse_data()
{
    QTest::addColumn<QString>("text");
    QTest::addColumn<int>("elements"); // -1: refused
    QTest::addColumn<QString>("error"); // start of the reason
    QTest::newRow("comments and blanks") << "# x\n\n  label 100 50 # size\n# end" << 0 << QString();
    QTest::newRow("every element") << "label 400 300\ntext 1 2 20 \"a {1}\" bold center\n"
                                      "barcode 5 6 50 2 \"{2}\" text\nline 0 0 10 10 3\nbox 0 0 400 300\n"
                                   << 4 << QString();
    QTest::newRow("quote escapes, CRLF") << "label 100 50\r\ntext 1 1 10 \"say \\\"hi\\\" \\\\ # no comment\"\r\n"
                                         << 1 << QString();
    QTest::newRow("empty") << "" << -1 << "line 1: no label";
    QTest::newRow("element before label") << "text 1 1 10 \"x\"\nlabel 10 10" << -1
                                          << "line 1: label statement must come first";
    QTest::newRow("two labels") << "label 100 50\nlabel 100 50" << -1 << "line 2: second label";
    QTest::newRow("label too big") << "label 5000 50" << -1 << "line 1: label";
    QTest::newRow("unknown statement") << "label 100 50\n\nellipse 1 2 3" << -1 << "line 3: unknown";
    QTest::newRow("unterminated text") << "label 100 50\ntext 1 1 10 \"abc" << -1 << "line 2: unterminated";
    QTest::newRow("text bad option") << "label 100 50\ntext 1 1 10 \"x\" italic" << -1
                                     << "line 2: unknown text option";
    QTest::newRow("negative coordinate") << "label 100 50\nline -1 0 5 5" << -1 << "line 2: line";
    QTest::newRow("barcode module 0") << "label 100 50\nbarcode 1 1 20 0 \"x\"" << -1 << "line 2: barcode";
}

void TestLabel::parse()
{
    QFETCH(QString, text);
    QFETCH(int, elements);
    QFETCH(QString, error);
    LabelLayout layout;
    QString why;
    QCOMPARE(ParseLabelLayout(text, &layout, &why), elements >= 0);
    if (elements >= 0)
        QCOMPARE(layout.elements.size(), elements);
    else
        QVERIFY2(why.startsWith(error), qPrintable(why));
}

void TestLabel::placeholders()
{
    const QMap<int, QString> vars{{1, "Brixa"}, {2, "{1}"}, {12, "Tolv"}};
    QCOMPARE(FillPlaceholders("a{1}b{12}c", vars), QString("aBrixabTolvc"));
    QCOMPARE(FillPlaceholders("[{3}]", vars), QString("[]")); // missing: nothing
    const QString notPlaceholders = "{x} {} {0} {01} {1234}";
    QCOMPARE(FillPlaceholders(notPlaceholders, vars), notPlaceholders);
    QCOMPARE(FillPlaceholders("{2}", vars), QString("{1}")); // values are not re-read
}

void TestLabel::code128Bars()
{
    // "A": start B 211214, 'A' 111323, check (104 + 33) % 103 = 34 -> 131123, stop 2331112.
    const QVector<int> a{2, 1, 1, 2, 1, 4, 1, 1, 1, 3, 2, 3, 1, 3, 1, 1, 2, 3, 2, 3, 3, 1, 1, 1, 2};
    QCOMPARE(Code128Widths("A"), a);
    // "Wikipedia" has the check value 88 (421211), just before the stop.
    const QVector<int> w = Code128Widths("Wikipedia");
    QCOMPARE(w.size(), 6 * 11 + 7);
    QCOMPARE(w.mid(w.size() - 13, 6), (QVector<int>{4, 2, 1, 2, 1, 1}));
    QCOMPARE(std::accumulate(w.begin(), w.end(), 0), 11 * 11 + 13);

    // Drawn: one row read back into runs gives the same widths.
    LabelLayout layout;
    QVERIFY(ParseLabelLayout("label 200 40\nbarcode 10 5 30 1 \"A\"", &layout));
    const QImage img = RenderLabel(layout, {});
    QVector<int> runs{0};
    bool dark = true;
    for (int x = 10; x < 200; ++x) {
        const bool d = qGray(img.pixel(x, 20)) < 128;
        if (d != dark)
            runs << 0;
        dark = d;
        ++runs.last();
    }
    QCOMPARE(runs.mid(0, a.size()), a);
}

void TestLabel::ourLayouts()
{
    LabelLayout demo, test;
    QString why;
    QVERIFY2(ParseLabelLayout(resource("demo.lbl"), &demo, &why), qPrintable(why));
    // The test label: variable 1 is the title line and its barcode; the heading is fixed.
    QVERIFY2(ParseLabelLayout(resource("0.lbl"), &test, &why), qPrintable(why));
    QCOMPARE(test.variables(), QSet<int>{1});
    const QImage empty = RenderLabel(test, {});
    const QImage full = RenderLabel(test, {{1, "Brixa - Printerserver v1.0.0"}});
    QCOMPARE(full.size(), QSize(480, 320));
    const QRect line(20, 118, 440, 32), bars(20, 170, 440, 90), heading(150, 18, 180, 50);
    QCOMPARE(darkIn(empty, line) + darkIn(empty, bars), 0);
    QVERIFY(darkIn(full, line) > 300);
    QVERIFY(darkIn(full, bars) > 5000);
    QVERIFY(darkIn(empty, heading) > 500);
}

QTEST_MAIN(TestLabel)
#include "tst_label.moc"
