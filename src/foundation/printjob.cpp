#include "foundation/printjob.h"
#include "foundation/error.h"
#include "foundation/jobfields.h"

namespace quill {

PrintJob PrintJob::fromText(const QString& text)
{
    PrintJob job;
    job.text = text;
    const JobFields f(text);
    // Overflow starts at one field and holds for every later one: find it
    // once, reading the fields in the order they are numbered.
    auto read = [&](int n, auto get) {
        if (n >= job.overflowFrom)
            return;
        try {
            get();
        } catch (const Error&) {
            job.overflowFrom = n;
        }
    };
    read(3, [&] { job.print = f.operation() == QLatin1String("P"); });
    read(4, [&] { job.printerId = f.printerId(); });
    read(5, [&] { job.templateId = f.templateId(); });
    read(6, [&] { job.copies = f.copies(); });
    read(8, [&] { job.checkMode = f.checkMode(); });
    read(12, [&] { f.field(12); });
    return job;
}

QString DriverResult::logText() const
{
    return ok ? QStringLiteral("OK\t") + text : QStringLiteral("ERR\t") + text;
}

} // namespace quill
