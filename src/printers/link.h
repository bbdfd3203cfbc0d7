#pragma once
// Printer link codec: the frames that travel between the device library (or
// the print driver) and an MP104C printer, over a serial line or a network
// box. Pure data in, data out: no I/O, no timers, no event loop, so the same
// code serves a blocking caller (devicesession.cpp) and an asynchronous one.
//
// Wire format (docs/printer-link.md has the full description):
//   request  "Q" TAB id TAB verb  { TAB argument } LF
//   answer   "A" TAB id TAB result { TAB value }    LF
// Bytes are Windows-1252. Inside a field "\\", TAB, LF, CR and every other
// control byte are escaped ("\\\\", "\\t", "\\n", "\\r", "\\xHH"), so a frame
// never holds a raw control byte and XON/XOFF flow control stays usable.
#include <QByteArray>
#include <QList>
#include <QString>
#include <QStringList>

namespace quill {

// Results carried in answers and returned by the device library. 1 or more is
// success; -6 and -7 are "accepted" results of print and layout download.
namespace link {
constexpr int Ok = 1;
constexpr int ErrGeneral = -1;
constexpr int ErrComm = -2;      // timeout, lost connection, garbled answer
constexpr int ErrFile = -3;      // layout unreadable, unparsable or not loaded
constexpr int ErrPaper = -4;
constexpr int ErrRibbon = -5;
constexpr int PrintAccepted = -6;  // printed, but a layout variable had no value
constexpr int LayoutAccepted = -7; // layout equals the one already stored; kept
constexpr int ErrMemory = -8;    // layout larger than the printer's memory

// Status bits answered to STATUS.
constexpr int StatusPaperOut = 1;
constexpr int StatusRibbonOut = 4;
constexpr int StatusHeadUp = 8;

// Parameter that holds the printer's serial line speed.
constexpr int ParamBaudRate = 30;

// Verbs, one per library call.
inline const QString Open = QStringLiteral("OPEN");
inline const QString Close = QStringLiteral("CLOSE");
inline const QString Status = QStringLiteral("STATUS");
inline const QString SetParam = QStringLiteral("SETPARAM");
inline const QString GetParam = QStringLiteral("GETPARAM");
inline const QString Service = QStringLiteral("SERVICE");
inline const QString Lock = QStringLiteral("LOCK");
inline const QString GetCounter = QStringLiteral("GETCOUNTER");
inline const QString SetCounter = QStringLiteral("SETCOUNTER");
inline const QString Init = QStringLiteral("INIT");
inline const QString Layout = QStringLiteral("LAYOUT");
inline const QString Var = QStringLiteral("VAR");
inline const QString Print = QStringLiteral("PRINT");

// Longest frame accepted, LF included. A layout must fit in one frame.
constexpr int MaxFrameBytes = 64 * 1024;
// Decoded frames held until taken; more are dropped (and counted as rejected).
constexpr int MaxQueuedFrames = 64;
} // namespace link

struct LinkFrame {
    enum Kind { Request, Answer };
    Kind kind = Request;
    quint32 id = 0;        // 1 .. 2^31-1; an answer repeats its request's id
    QString verb;          // requests only
    int result = 0;        // answers only
    QStringList args;      // request arguments or answer values
};

QByteArray EncodeRequest(quint32 id, const QString& verb, const QStringList& args = {});
QByteArray EncodeAnswer(quint32 id, int result, const QStringList& values = {});
QByteArray EncodeFrame(const LinkFrame& frame);

// Incremental decoder. Feed it whatever bytes arrived; take complete frames
// with next(). Malformed lines, lines longer than MaxFrameBytes and frames
// beyond MaxQueuedFrames are dropped and counted; memory stays bounded by
// MaxFrameBytes + MaxQueuedFrames frames whatever is fed.
class LinkDecoder {
public:
    void feed(const QByteArray& bytes);
    bool next(LinkFrame* frame);
    // Drops the partial line and every queued frame (after a speed change,
    // a reconnect or a timeout).
    void reset();
    int rejected() const { return rejected_; }
    int pendingFrames() const { return int(queue_.size()); }
    int bufferedBytes() const { return int(partial_.size()); }

    // One line without its LF; false when it is not a valid frame.
    static bool parseLine(const QByteArray& line, LinkFrame* frame);

private:
    void takeLine(const QByteArray& line);
    QByteArray partial_;
    bool skipping_ = false; // inside an over-long line: drop up to its LF
    QList<LinkFrame> queue_;
    int rejected_ = 0;
};

// Field escaping, exposed for tests and for the emulator's log.
QByteArray EscapeField(const QString& text);
bool UnescapeField(const QByteArray& field, QString* text);

} // namespace quill
