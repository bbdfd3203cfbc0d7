#include "printers/link.h"

#include "foundation/cp1252.h"

namespace quill {

namespace {

constexpr char XON = 0x11;
constexpr char XOFF = 0x13;

int hexValue(char c)
{
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    return -1;
}

bool parseId(const QByteArray& text, quint32* id)
{
    if (text.isEmpty() || text.size() > 10)
        return false;
    bool ok = false;
    const qulonglong v = text.toULongLong(&ok);
    if (!ok || v < 1 || v > 0x7fffffffULL || text.startsWith('+'))
        return false;
    *id = quint32(v);
    return true;
}

bool isVerb(const QByteArray& text)
{
    if (text.isEmpty() || text.size() > 16)
        return false;
    for (char c : text)
        if (c < 'A' || c > 'Z')
            return false;
    return true;
}

} // namespace

QByteArray EscapeField(const QString& text)
{
    const QByteArray raw = ToCp1252(text);
    QByteArray out;
    out.reserve(raw.size());
    for (char c : raw) {
        const unsigned char u = static_cast<unsigned char>(c);
        if (c == '\\')
            out += "\\\\";
        else if (c == '\t')
            out += "\\t";
        else if (c == '\n')
            out += "\\n";
        else if (c == '\r')
            out += "\\r";
        else if (u < 0x20 || u == 0x7f) {
            static const char digits[] = "0123456789ABCDEF";
            out += "\\x";
            out += digits[u >> 4];
            out += digits[u & 15];
        } else
            out += c;
    }
    return out;
}

bool UnescapeField(const QByteArray& field, QString* text)
{
    QByteArray raw;
    raw.reserve(field.size());
    for (qsizetype i = 0; i < field.size(); ++i) {
        const char c = field[i];
        const unsigned char u = static_cast<unsigned char>(c);
        if (u < 0x20 || u == 0x7f)
            return false; // raw control bytes never appear inside a field
        if (c != '\\') {
            raw += c;
            continue;
        }
        if (++i >= field.size())
            return false;
        switch (field[i]) {
        case '\\': raw += '\\'; break;
        case 't': raw += '\t'; break;
        case 'n': raw += '\n'; break;
        case 'r': raw += '\r'; break;
        case 'x': {
            if (i + 2 >= field.size())
                return false;
            const int hi = hexValue(field[i + 1]);
            const int lo = hexValue(field[i + 2]);
            if (hi < 0 || lo < 0)
                return false;
            raw += char(hi * 16 + lo);
            i += 2;
            break;
        }
        default:
            return false;
        }
    }
    *text = FromCp1252(raw);
    return true;
}

static QByteArray encode(char kind, quint32 id, const QByteArray& third, const QStringList& fields)
{
    QByteArray out;
    out += kind;
    out += '\t';
    out += QByteArray::number(id);
    out += '\t';
    out += third;
    for (const QString& f : fields) {
        out += '\t';
        out += EscapeField(f);
    }
    out += '\n';
    return out;
}

QByteArray EncodeRequest(quint32 id, const QString& verb, const QStringList& args)
{
    return encode('Q', id, verb.toLatin1(), args);
}

QByteArray EncodeAnswer(quint32 id, int result, const QStringList& values)
{
    return encode('A', id, QByteArray::number(result), values);
}

QByteArray EncodeFrame(const LinkFrame& frame)
{
    return frame.kind == LinkFrame::Request ? EncodeRequest(frame.id, frame.verb, frame.args)
                                            : EncodeAnswer(frame.id, frame.result, frame.args);
}

bool LinkDecoder::parseLine(const QByteArray& line, LinkFrame* frame)
{
    const QList<QByteArray> parts = line.split('\t');
    if (parts.size() < 3)
        return false;
    LinkFrame f;
    if (parts[0] == "Q")
        f.kind = LinkFrame::Request;
    else if (parts[0] == "A")
        f.kind = LinkFrame::Answer;
    else
        return false;
    if (!parseId(parts[1], &f.id))
        return false;
    if (f.kind == LinkFrame::Request) {
        if (!isVerb(parts[2]))
            return false;
        f.verb = QString::fromLatin1(parts[2]);
    } else {
        const QByteArray& r = parts[2];
        if (r.isEmpty() || r.size() > 11)
            return false;
        bool ok = false;
        f.result = r.toInt(&ok);
        if (!ok || r.startsWith('+'))
            return false;
    }
    for (qsizetype i = 3; i < parts.size(); ++i) {
        QString text;
        if (!UnescapeField(parts[i], &text))
            return false;
        f.args << text;
    }
    *frame = std::move(f);
    return true;
}

void LinkDecoder::takeLine(const QByteArray& line)
{
    QByteArray l = line;
    if (l.endsWith('\r'))
        l.chop(1);
    if (l.isEmpty())
        return; // blank lines are keep-alives, not errors
    LinkFrame f;
    if (!parseLine(l, &f) || queue_.size() >= link::MaxQueuedFrames) {
        ++rejected_;
        return;
    }
    queue_.append(std::move(f));
}

void LinkDecoder::feed(const QByteArray& bytes)
{
    qsizetype start = 0;
    while (start < bytes.size()) {
        const qsizetype lf = bytes.indexOf('\n', start);
        const qsizetype end = lf < 0 ? bytes.size() : lf;
        for (qsizetype i = start; i < end && !skipping_; ++i) {
            const char c = bytes[i];
            if (c == XON || c == XOFF)
                continue; // flow control from the serial line, never data
            partial_ += c;
            if (partial_.size() >= link::MaxFrameBytes) {
                // Too long to be a frame: drop it and everything up to its LF.
                partial_.clear();
                skipping_ = true;
                ++rejected_;
            }
        }
        if (lf < 0)
            break;
        if (!skipping_)
            takeLine(partial_);
        partial_.clear();
        skipping_ = false;
        start = lf + 1;
    }
}

bool LinkDecoder::next(LinkFrame* frame)
{
    if (queue_.isEmpty())
        return false;
    *frame = queue_.takeFirst();
    return true;
}

void LinkDecoder::reset()
{
    partial_.clear();
    skipping_ = false;
    queue_.clear();
}

} // namespace quill
