#pragma once
#include <QString>

namespace quill {

// Provisions a new installation folder: database and account file with the
// whole schema, the test layout, the language files and the per-machine
// settings defaults that are missing. Refuses to overwrite a database.
bool ProvisionInstallation(const QString& dir, QString* message);

// Writes the per-machine defaults (language, country, add-in, serial port
// map) that are not set yet; false when the store cannot be written.
bool WriteMachineDefaults();

} // namespace quill
