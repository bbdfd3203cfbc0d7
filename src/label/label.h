#pragma once
// Label layouts (<template id>.lbl, docs/label-layout.md): parsing and
// rendering to an image. The printer (and its emulator) fills the variable
// fields from the variables sent with VAR requests: placeholder {n}
// stands for variable number n.
#include <QImage>
#include <QList>
#include <QMap>
#include <QSet>
#include <QString>
#include <QVector>

namespace quill {

struct LabelElement {
    enum Kind { Text, Barcode, Line, Box };
    Kind kind = Text;
    int x = 0, y = 0;
    int x2 = 0, y2 = 0;     // Line: end point; Box: width and height
    int size = 0;           // Text: pixel height; Barcode: bar height; Line/Box: stroke width
    int module = 2;         // Barcode: narrowest bar in dots
    bool bold = false;      // Text
    bool humanReadable = false; // Barcode: print the text under the bars
    Qt::Alignment align = Qt::AlignLeft; // Text: x is the left edge, centre or right edge
    QString content;        // Text and Barcode, with {n} placeholders
};

struct LabelLayout {
    int width = 0;   // dots (8 per millimetre)
    int height = 0;
    QList<LabelElement> elements;
    // Variable numbers the layout refers to.
    QSet<int> variables() const;
};

constexpr int MaxLabelDots = 4000;
constexpr int MaxLabelVariable = 999;

// false and *error ("line N: ...") when the text is not a valid layout.
bool ParseLabelLayout(const QString& text, LabelLayout* layout, QString* error = nullptr);
// Replaces each {n} by variable n (missing ones by nothing).
QString FillPlaceholders(const QString& content, const QMap<int, QString>& variables);
// Needs a QGuiApplication (fonts); black on white.
QImage RenderLabel(const LabelLayout& layout, const QMap<int, QString>& variables);

// Code 128 (code set B) as alternating bar/space widths in modules, bar
// first, start, check and stop symbols included. Characters outside printable
// ASCII are encoded as '?'.
QVector<int> Code128Widths(const QString& text);

} // namespace quill
