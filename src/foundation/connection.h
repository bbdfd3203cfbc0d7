#pragma once
// A printer's connection string, split at its first "#":
//   serial   "COM1:#9600"   device name and line rate
//   network  "10.0.0.5#23"  box address and TCP port
// The parts stand as written (blanks included); callers trim where they need to.
//
//   const ConnectionString c = ConnectionString::parse(slot.connectionString);
//   open(c.device.trimmed(), c.rateOrPort.trimmed());
#include <QString>

namespace quill {

struct ConnectionString {
    QString device;      // before the first "#"; the whole text when there is none
    QString rateOrPort;  // after the first "#"; empty when there is none
    bool hasHash = false;

    static ConnectionString parse(const QString& text);
    // The two forms the printer dialog stores.
    static QString serial(qint32 comPort, qint32 rate);                    // COM1:#9600
    static QString network(const QString& address, const QString& port);  // both trimmed

    // 1..9 when the whole text names a serial port ("COM1:", "com2", blanks
    // around allowed); 0 otherwise, a network box then.
    int comPort() const;
    bool serial() const { return comPort() > 0; }
};

} // namespace quill
