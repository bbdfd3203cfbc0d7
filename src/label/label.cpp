#include "label/label.h"

#include <QFont>
#include <QFontMetrics>
#include <QPainter>
#include <QRegularExpression>

namespace quill {

namespace {

// Code 128 symbol patterns 0..105 (six widths each) and the stop symbol.
const char* const Code128Patterns[] = {
    "212222", "222122", "222221", "121223", "121322", "131222", "122213", "122312", "132212", "221213",
    "221312", "231212", "112232", "122132", "122231", "113222", "123122", "123221", "223211", "221132",
    "221231", "213212", "223112", "312131", "311222", "321122", "321221", "312212", "322112", "322211",
    "212123", "212321", "232121", "111323", "131123", "131321", "112313", "132113", "132311", "211313",
    "231113", "231311", "112133", "112331", "132131", "113123", "113321", "133121", "313121", "211331",
    "231131", "213113", "213311", "213131", "311123", "311321", "331121", "312113", "312311", "332111",
    "314111", "221411", "431111", "111224", "111422", "121124", "121421", "141122", "141221", "112214",
    "112412", "122114", "122411", "142112", "142211", "241211", "221114", "413111", "241112", "134111",
    "111242", "121142", "121241", "114212", "124112", "124211", "411212", "421112", "421211", "212141",
    "214121", "412121", "111143", "111341", "131141", "114113", "114311", "411113", "411311", "113141",
    "114131", "311141", "411131", "211412", "211214", "211232", "2331112"};
constexpr int StartB = 104;
constexpr int Stop = 106;

// Splits a statement into words; "..." is one word with \" and \\ escapes.
bool tokenize(const QString& line, QStringList* words, QString* error)
{
    words->clear();
    qsizetype i = 0;
    const qsizetype n = line.size();
    while (i < n) {
        const QChar c = line[i];
        if (c.isSpace()) {
            ++i;
            continue;
        }
        if (c == QLatin1Char('#'))
            break;
        if (c == QLatin1Char('"')) {
            QString w;
            ++i;
            bool closed = false;
            while (i < n) {
                const QChar d = line[i++];
                if (d == QLatin1Char('"')) {
                    closed = true;
                    break;
                }
                if (d == QLatin1Char('\\') && i < n)
                    w += line[i++];
                else
                    w += d;
            }
            if (!closed) {
                *error = QStringLiteral("unterminated text");
                return false;
            }
            *words << w;
            continue;
        }
        QString w;
        while (i < n && !line[i].isSpace())
            w += line[i++];
        *words << w;
    }
    return true;
}

bool number(const QString& word, int min, int max, int* out)
{
    bool ok = false;
    const int v = word.toInt(&ok);
    if (!ok || v < min || v > max)
        return false;
    *out = v;
    return true;
}

const QRegularExpression& placeholder()
{
    static const QRegularExpression re(QStringLiteral("\\{([1-9][0-9]{0,2})\\}"));
    return re;
}

} // namespace

QSet<int> LabelLayout::variables() const
{
    QSet<int> out;
    for (const LabelElement& e : elements) {
        auto it = placeholder().globalMatch(e.content);
        while (it.hasNext())
            out.insert(it.next().captured(1).toInt());
    }
    return out;
}

bool ParseLabelLayout(const QString& text, LabelLayout* layout, QString* error)
{
    LabelLayout out;
    QString why;
    const QStringList lines = text.split(QLatin1Char('\n'));
    int lineNo = 0;
    auto fail = [&](const QString& reason) {
        if (error)
            *error = QStringLiteral("line %1: %2").arg(lineNo).arg(reason);
        return false;
    };
    for (const QString& raw : lines) {
        ++lineNo;
        QStringList w;
        if (!tokenize(raw, &w, &why))
            return fail(why);
        if (w.isEmpty())
            continue;
        const QString cmd = w[0].toLower();
        const int M = MaxLabelDots;
        if (cmd == QLatin1String("label")) {
            if (out.width > 0)
                return fail(QStringLiteral("second label statement"));
            if (w.size() != 3 || !number(w[1], 8, M, &out.width) || !number(w[2], 8, M, &out.height))
                return fail(QStringLiteral("label WIDTH HEIGHT expected"));
            continue;
        }
        if (out.width == 0)
            return fail(QStringLiteral("label statement must come first"));
        LabelElement e;
        if (cmd == QLatin1String("text")) {
            e.kind = LabelElement::Text;
            if (w.size() < 5 || !number(w[1], 0, M, &e.x) || !number(w[2], 0, M, &e.y)
                || !number(w[3], 4, 1000, &e.size))
                return fail(QStringLiteral("text X Y SIZE \"content\" expected"));
            e.content = w[4];
            for (int i = 5; i < w.size(); ++i) {
                const QString opt = w[i].toLower();
                if (opt == QLatin1String("bold"))
                    e.bold = true;
                else if (opt == QLatin1String("center"))
                    e.align = Qt::AlignHCenter;
                else if (opt == QLatin1String("right"))
                    e.align = Qt::AlignRight;
                else
                    return fail(QStringLiteral("unknown text option ") + w[i]);
            }
        } else if (cmd == QLatin1String("barcode")) {
            e.kind = LabelElement::Barcode;
            if (w.size() < 6 || !number(w[1], 0, M, &e.x) || !number(w[2], 0, M, &e.y)
                || !number(w[3], 4, M, &e.size) || !number(w[4], 1, 10, &e.module))
                return fail(QStringLiteral("barcode X Y HEIGHT MODULE \"content\" expected"));
            e.content = w[5];
            for (int i = 6; i < w.size(); ++i) {
                if (w[i].toLower() == QLatin1String("text"))
                    e.humanReadable = true;
                else
                    return fail(QStringLiteral("unknown barcode option ") + w[i]);
            }
        } else if (cmd == QLatin1String("line")) {
            e.kind = LabelElement::Line;
            e.size = 2;
            if (w.size() < 5 || w.size() > 6 || !number(w[1], 0, M, &e.x) || !number(w[2], 0, M, &e.y)
                || !number(w[3], 0, M, &e.x2) || !number(w[4], 0, M, &e.y2)
                || (w.size() == 6 && !number(w[5], 1, 100, &e.size)))
                return fail(QStringLiteral("line X1 Y1 X2 Y2 [WIDTH] expected"));
        } else if (cmd == QLatin1String("box")) {
            e.kind = LabelElement::Box;
            e.size = 2;
            if (w.size() < 5 || w.size() > 6 || !number(w[1], 0, M, &e.x) || !number(w[2], 0, M, &e.y)
                || !number(w[3], 1, M, &e.x2) || !number(w[4], 1, M, &e.y2)
                || (w.size() == 6 && !number(w[5], 1, 100, &e.size)))
                return fail(QStringLiteral("box X Y W H [WIDTH] expected"));
        } else {
            return fail(QStringLiteral("unknown statement ") + w[0]);
        }
        out.elements << e;
    }
    if (out.width == 0) {
        lineNo = int(lines.size());
        return fail(QStringLiteral("no label statement"));
    }
    *layout = out;
    return true;
}

QString FillPlaceholders(const QString& content, const QMap<int, QString>& variables)
{
    QString out;
    qsizetype last = 0;
    auto it = placeholder().globalMatch(content);
    while (it.hasNext()) {
        const QRegularExpressionMatch m = it.next();
        out += content.mid(last, m.capturedStart() - last);
        out += variables.value(m.captured(1).toInt());
        last = m.capturedEnd();
    }
    out += content.mid(last);
    return out;
}

QVector<int> Code128Widths(const QString& text)
{
    QVector<int> symbols{StartB};
    for (QChar c : text) {
        const ushort u = c.unicode();
        symbols << ((u >= 32 && u <= 126) ? int(u) - 32 : int('?') - 32);
    }
    int sum = StartB;
    for (int i = 1; i < symbols.size(); ++i)
        sum += symbols[i] * i;
    symbols << sum % 103 << Stop;
    QVector<int> widths;
    for (int s : symbols)
        for (const char* p = Code128Patterns[s]; *p; ++p)
            widths << (*p - '0');
    return widths;
}

QImage RenderLabel(const LabelLayout& layout, const QMap<int, QString>& variables)
{
    QImage img(qMax(1, layout.width), qMax(1, layout.height), QImage::Format_RGB32);
    img.fill(Qt::white);
    QPainter p(&img);
    p.setRenderHint(QPainter::Antialiasing, false);
    p.setRenderHint(QPainter::TextAntialiasing, true);
    for (const LabelElement& e : layout.elements) {
        switch (e.kind) {
        case LabelElement::Text: {
            QFont f(QStringLiteral("DejaVu Sans"));
            f.setPixelSize(e.size);
            f.setBold(e.bold);
            p.setFont(f);
            p.setPen(Qt::black);
            const QString s = FillPlaceholders(e.content, variables);
            const QFontMetrics fm(f);
            int x = e.x;
            if (e.align == Qt::AlignHCenter)
                x = e.x - fm.horizontalAdvance(s) / 2;
            else if (e.align == Qt::AlignRight)
                x = e.x - fm.horizontalAdvance(s);
            // y is the top of the text line.
            p.drawText(x, e.y + fm.ascent(), s);
            break;
        }
        case LabelElement::Barcode: {
            const QString s = FillPlaceholders(e.content, variables);
            if (s.isEmpty())
                break;
            const QVector<int> widths = Code128Widths(s);
            int x = e.x;
            for (int i = 0; i < widths.size(); ++i) {
                const int w = widths[i] * e.module;
                if (i % 2 == 0)
                    p.fillRect(x, e.y, w, e.size, Qt::black);
                x += w;
            }
            if (e.humanReadable) {
                QFont f(QStringLiteral("DejaVu Sans Mono"));
                f.setPixelSize(qBound(10, e.size / 4, 40));
                p.setFont(f);
                p.setPen(Qt::black);
                const QFontMetrics fm(f);
                const int centre = (e.x + x) / 2;
                p.drawText(centre - fm.horizontalAdvance(s) / 2, e.y + e.size + 2 + fm.ascent(), s);
            }
            break;
        }
        case LabelElement::Line:
            p.setPen(QPen(Qt::black, e.size, Qt::SolidLine, Qt::FlatCap));
            p.drawLine(e.x, e.y, e.x2, e.y2);
            break;
        case LabelElement::Box:
            p.setPen(QPen(Qt::black, e.size, Qt::SolidLine, Qt::SquareCap, Qt::MiterJoin));
            p.setBrush(Qt::NoBrush);
            p.drawRect(e.x + e.size / 2, e.y + e.size / 2, e.x2 - e.size, e.y2 - e.size);
            break;
        }
    }
    p.end();
    return img;
}

} // namespace quill
