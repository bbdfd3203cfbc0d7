#pragma once
// Real storage faults for the tests: a small tmpfs to fill up, a read-only bind
// mount over a file or folder. Both need the right to mount (root here); each
// returns false with the reason otherwise, for a QSKIP.
#include <QString>

namespace quill::test {

// A tmpfs of sizeKb KiB mounted on the folder, with the folder's present content
// copied onto it (so an installation keeps its files).
bool MountTmpfsOver(const QString& folder, int sizeKb, QString* why);
// The file or folder becomes read-only in place, for root too.
bool BindReadOnly(const QString& path, QString* why);
// Undoes either; false when nothing was mounted there.
bool Unmount(const QString& path);
// Writes into `path` until the file system is full; the bytes written.
qint64 FillUp(const QString& path);

} // namespace quill::test
