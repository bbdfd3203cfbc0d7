#pragma once
// Provisioning of a new installation: brixa.mda (names the record engine) and
// brixa.mdb with every table the server reads and writes, one tbServer row, the
// printer types 1 to 9 and two demo templates (1 and 2, template type 1).
//
//   QString err;
//   if (!CreateInstallation(dir, &err)) print err;
//
// An existing brixa.mdb is never overwritten. When brixa.mda is there already and
// names PostgreSQL, the tables go into the database it names, which must have none of them.
#include <QString>

namespace quill {

bool CreateInstallation(const QString& dir, QString* error = nullptr);

// The CREATE TABLE statements of brixa.mdb, in creation order.
const char* const* SchemaStatements();

} // namespace quill
