#pragma once
// Running out of file descriptors. One descriptor is held back for the
// operator: when the process has no other, the control socket gives it up to
// take a connection, so the operator still gets answers while clients wait.
#include <QString>

namespace quill {

// Holds the reserve (again) when it is not held; does nothing when it is.
void ReserveDescriptor();
// Gives the reserve up for one descriptor; false when none was held.
bool ReleaseReservedDescriptor();

// Logs once that `what` cannot accept (error: why), until descriptors are to
// be had again (NoteDescriptorsAgain).
void NoteOutOfDescriptors(const QString& what, const QString& error);
void NoteDescriptorsAgain();

} // namespace quill
