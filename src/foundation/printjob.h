#pragma once
// A print job as one value: the request text read once, when it arrives, into
// the fields the server acts on. It travels from the request handler to the
// job store, the queue and the printer driver; nobody reads the text for
// these fields again.
//
//   const PrintJob job = PrintJob::fromText(text);
//   if (job.readable(PrintJob::CheckedFields)) ... job.printerId, job.templateId
#include <QString>

#include <limits>

namespace quill {

struct PrintJob {
    qint32 id = 0;          // 0 until stored
    qint32 printerId = -1;  // field 4
    qint32 templateId = -1; // field 5
    qint32 copies = 1;      // field 6
    qint32 checkMode = 0;   // field 8
    bool print = false;     // field 3 is "P"
    QString text;           // as received (or converted from the add-in form)

    // Fields the request checks read (4, 5, 8) and those a queued job shows
    // (through 12): a text whose separators lie beyond the field readers'
    // reach cannot give them (see JobFields), and the reader that asks for
    // them fails as it always did.
    static constexpr int CheckedFields = 8;
    static constexpr int ListedFields = 12;
    bool readable(int throughField) const { return throughField < overflowFrom; }

    // Parses the text once. Never throws.
    static PrintJob fromText(const QString& text);

    int overflowFrom = std::numeric_limits<int>::max(); // first field that cannot be read
};

// The end of a driver run: "OK", or "ERR" and the reason.
struct DriverResult {
    bool ok = false;
    QString text; // the reason of a failure; empty on success
    static DriverResult success() { return {true, {}}; }
    static DriverResult failure(const QString& reason) { return {false, reason}; }
    // As the driver's log writes it: the outcome word, a TAB and the text.
    QString logText() const;
};

} // namespace quill
