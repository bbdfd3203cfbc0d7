#include "foundation/cp1252.h"

#include <array>

namespace quill {

namespace {
constexpr std::array<char16_t, 32> High = {
    0x20AC, 0x0081, 0x201A, 0x0192, 0x201E, 0x2026, 0x2020, 0x2021,
    0x02C6, 0x2030, 0x0160, 0x2039, 0x0152, 0x008D, 0x017D, 0x008F,
    0x0090, 0x2018, 0x2019, 0x201C, 0x201D, 0x2022, 0x2013, 0x2014,
    0x02DC, 0x2122, 0x0161, 0x203A, 0x0153, 0x009D, 0x017E, 0x0178,
};
} // namespace

QString FromCp1252(const QByteArray& bytes)
{
    QString out(bytes.size(), Qt::Uninitialized);
    QChar* d = out.data();
    for (char c : bytes) {
        const auto b = static_cast<unsigned char>(c);
        *d++ = (b >= 0x80 && b < 0xA0) ? QChar(High[b - 0x80]) : QChar(b);
    }
    return out;
}

QByteArray ToCp1252(const QString& text)
{
    QByteArray out(text.size(), Qt::Uninitialized);
    char* d = out.data();
    for (QChar ch : text) {
        const char16_t u = ch.unicode();
        if (u < 0x80 || (u >= 0xA0 && u <= 0xFF)) {
            *d++ = char(u);
            continue;
        }
        char mapped = '?';
        for (size_t i = 0; i < High.size(); ++i) {
            if (High[i] == u) {
                mapped = char(0x80 + i);
                break;
            }
        }
        *d++ = mapped;
    }
    return out;
}

} // namespace quill
