// Label layouts: parser, placeholders, Code 128 bars, the layouts we ship.
#include "label/label.h"

#include <QFile>
#include <QtTest>

using namespace quill;

namespace {

QString resource(const QString& name)
{
    QFile f(QStringLiteral(QUILL_SOURCE_DIR "/src/resources/") + name);
    return f.open(QIODevice::ReadOnly) ? QString::fromUtf8(f.readAll()) : QString();
}

} // namespace

class TestLabel : public QObject {
    Q_OBJECT
private slots:

    void parse_data()
    {
        QTest::addColumn<QString>("text");
        QTest::addColumn<int>("elements"); // -1: refused
        QTest::addColumn<QString>("error"); // start of the reason
        QTest::newRow("every element") << "label 400 300\ntext 1 2 20 \"a {1}\" bold center\n"
                                          "barcode 5 6 50 2 \"{2}\" text\nline 0 0 10 10 3\nbox 0 0 400 300\n"
                                       << 4 << QString();
        QTest::newRow("comments, quote escapes, CRLF")
            << "# x\n\n label 100 50 # size\r\ntext 1 1 10 \"say \\\"hi\\\" \\\\ # no comment\"\r\n" << 1 << QString();
        QTest::newRow("element before label") << "text 1 1 10 \"x\"\nlabel 10 10" << -1
                                              << "line 1: label statement must come first";
        QTest::newRow("label too big") << "label 5000 50" << -1 << "line 1: label";
        QTest::newRow("unknown statement") << "label 100 50\n\nellipse 1 2 3" << -1 << "line 3: unknown";
        QTest::newRow("text bad option") << "label 100 50\ntext 1 1 10 \"x\" italic" << -1
                                         << "line 2: unknown text option";
    }

    void parse()
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

    void placeholders()
    {
        const QMap<int, QString> vars{{1, "Brixa"}, {2, "{1}"}, {12, "Tolv"}};
        QCOMPARE(FillPlaceholders("a{1}b{12}c", vars), QString("aBrixabTolvc"));
        QCOMPARE(FillPlaceholders("[{3}]{x}{0}", vars), QString("[]{x}{0}")); // missing: nothing
        QCOMPARE(FillPlaceholders("{2}", vars), QString("{1}")); // values are not re-read
    }

    void code128Bars()
    {
        // "A": start B 211214, 'A' 111323, check (104 + 33) % 103 = 34 -> 131123, stop 2331112.
        QCOMPARE(Code128Widths("A"),
                 (QVector<int>{2, 1, 1, 2, 1, 4, 1, 1, 1, 3, 2, 3, 1, 3, 1, 1, 2, 3, 2, 3, 3, 1, 1, 1, 2}));
    }

    void ourLayouts()
    {
        // The shipped layouts parse; the test label's only variable is its title line.
        LabelLayout demo, test;
        QString why;
        QVERIFY2(ParseLabelLayout(resource("demo.lbl"), &demo, &why), qPrintable(why));
        QVERIFY2(ParseLabelLayout(resource("0.lbl"), &test, &why), qPrintable(why));
        QCOMPARE(test.variables(), QSet<int>{1});
    }
};

QTEST_MAIN(TestLabel)
#include "tst_label.moc"
