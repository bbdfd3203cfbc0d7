#pragma once
#include <QString>

namespace quill {

// Provisions a new installation folder: database and account file with the
// whole schema, the test layout, the language files and the per-machine
// settings defaults that are missing; turns event logging on for this user
// unless it was set before. Refuses to overwrite a database.
bool ProvisionInstallation(const QString& dir, QString* message);

// What to do after --init: where things are, how to add a printer and start.
QString NextSteps(const QString& dir);

// Writes the per-machine defaults (language, country, add-in, serial port
// map) that are not set yet; false when the store cannot be written.
bool WriteMachineDefaults();

} // namespace quill
