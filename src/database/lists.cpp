#include "database/lists.h"
#include "database/jobdatabase.h"
#include "foundation/eventlog.h"
#include "foundation/strutil.h"

namespace quill {

int ValueList::findItemData(qint32 value, int start) const
{
    for (int i = qMax(0, start); i < entries.size(); ++i)
        if (entries[i].itemData == value)
            return i;
    return -1;
}

void SrvPrinterFillPrinterType(JobDatabase& jdb, ValueList& list)
{
    list.clear();
    const DbResult<QVector<PrinterType>> types = jdb.printers().types();
    if (types.error) {
        LogWrite(QStringLiteral("SrvPrinterFillPrinterType failed. Error: ") + types.error->text());
        return;
    }
    for (const PrinterType& t : types.value)
        list.add(NullToStr(t.name, QString()), NullToLong(t.id, 0));
    if (!list.entries.isEmpty()) {
        const int one = list.findItemData(1, 0);
        list.selected = one >= 0 ? one : 0;
    }
}

void SrvFillCOMRate(ValueList& list)
{
    list.clear();
    list.add(QStringLiteral("9600"), 9600);
    list.add(QStringLiteral("57600"), 57600);
    list.selected = 0;
}

void SrvFillCOMPort(ValueList& list)
{
    list.clear();
    for (int n = 1; n <= 4; ++n)
        list.add(QStringLiteral("COM%1:").arg(n), n);
    list.selected = 0;
}

void SrvFillStrobe(ValueList& list)
{
    list.clear();
    for (int n = 1; n <= 10; ++n)
        list.add(QString::number(n), n - 1);
    list.selected = 4;
}

void SrvFillSpeed(ValueList& list)
{
    list.clear();
    for (int n = 1; n <= 8; ++n)
        list.add(QString::number(n), n - 1);
    list.selected = 2;
}

void SrvFillYesNo(ValueList& list)
{
    // The two entries are fixed texts of the dialog, not translated.
    list.clear();
    list.add(QStringLiteral("Ja"), 1);
    list.add(QStringLiteral("Nej"), 0);
    list.selected = 1;
}

} // namespace quill
