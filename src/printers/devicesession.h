#pragma once
// One blocking session with a printer: the calls the device operations use
// (configure, test print, clear, calibrate, status check). Each call sends one
// request over the printer link (link.h) and waits for its answer with a
// bounded wait; no event loop runs meanwhile. A device that does not answer
// in time gives link::ErrComm (-2).
//
// A session belongs to the thread that opened it (its transport lives there);
// a printer link's worker (printerlink.h) runs it. Results follow the device
// conventions: 1 or more success, negative = device error code (-1..-8,
// link.h); -7 from sendLayout and -6 from printLabel mean "accepted".
#include <QString>

#include <atomic>
#include <memory>

class QIODevice;

namespace quill {

// How long each call may wait, and the flag a shutdown raises to end the waits
// of the work under way (null: never cancelled).
struct DeviceContext {
    int timeoutMs = 3000;
    const std::atomic<bool>* cancel = nullptr;
    bool cancelled() const { return cancel && cancel->load(); }
};

class DeviceSession {
public:
    explicit DeviceSession(const DeviceContext& context = {});
    ~DeviceSession();
    DeviceSession(const DeviceSession&) = delete;
    DeviceSession& operator=(const DeviceSession&) = delete;

    // device: "COM1:".."COM4:", "NETBOX:addr#port", "NETBOX:addr", "addr#port"
    // (linktransport.h). settings: "9600,n,8,1,x" for a serial port, empty for
    // a box. mode is passed to the printer ("m"). Returns 1, or -1 for a bad
    // device name or settings, -2 when the printer cannot be reached or does
    // not answer, or the printer's own refusal.
    int open(const QString& device, const QString& settings, const QString& mode);
    bool isOpen() const;
    // Tells the printer the session ends (no answer awaited).
    int close();
    // Status bits (link::StatusPaperOut 1, StatusRibbonOut 4, StatusHeadUp 8),
    // or a negative device error code. what = 4 asks for the fault bits.
    int status(int what);
    // Parameter 30 (line speed) also switches this side of a serial link to the
    // new rate once the printer has accepted it, so the session goes on.
    int setParameter(int parameter, int value);
    // reply (may be null) receives at most replyLength characters.
    int service(int command, const QString& input, QString* reply, int replyLength);
    // Refuses further parameter changes for the rest of this session.
    int lockParameters();
    // v1 = current value; v2..v4 = the three settings last written; v5 = labels
    // printed over the printer's life. Null pointers are skipped.
    int counter(int counter, int* v1, int* v2, int* v3, int* v4, int* v5);
    int setCounter(int counter, int value, int a, int b, int c);
    // Clears the printer's memory: stored layout and variables (mode "a").
    int init(const QString& mode);
    // Sends the layout file (label-layout.md) under its base name; -3 when the
    // file cannot be read, -8 when it is too large, -7 when the printer already
    // holds the same layout.
    int sendLayout(const QString& path);
    // Sets variable number `number` (placeholder {number} of the layout).
    int sendVariable(const QString& text, int number);
    // Prints `copies` labels; mode "i" = immediately. Returns copies printed,
    // -6 when printed with a missing variable, or -4/-5/-1 for paper, ribbon, head.
    int printLabel(int copies, const QString& mode);

private:
    int call(const QString& verb, const QStringList& args, QStringList* values = nullptr);

    struct State;
    DeviceContext context_;
    std::unique_ptr<State> state_;
    quint32 nextId_ = 1;
};

} // namespace quill
