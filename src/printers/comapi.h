#pragma once
// Printer device library: the blocking calls the device operations use
// (configure, test print, clear, calibrate, status check). Each call sends
// one request over the printer link (link.h) and waits for its answer with a
// bounded wait; no event loop runs meanwhile. A device that does not answer
// in time gives link::ErrComm (-2).
//
// Handles are small positive integers into a table of open devices; an open
// that fails returns a code below 1. Calls may come from any thread; a handle
// is used by the thread that opened it (its transport lives there). Results follow the device library's
// conventions: 1 or more success, negative = device error code (-1..-8,
// link.h); -7 from Printer_SendLayout and -6 from Printer_PrintLabel mean
// "accepted".
#include <QString>

namespace quill {

// device: "COM1:".."COM4:", "NETBOX:addr#port", "NETBOX:addr", "addr#port"
// (linktransport.h). settings: "9600,n,8,1,x" for a serial port, empty for a
// box. mode is passed to the printer ("m"). Returns a handle >= 1, or -1 for
// a bad device name or settings, -2 when the printer cannot be reached or
// does not answer, or the printer's own refusal.
int Printer_Open(const QString& device, const QString& settings, const QString& mode);
// Tells the printer the session ends (no answer awaited) and frees the handle.
int Printer_Close(int handle);
// Status bits (link::StatusPaperOut 1, StatusRibbonOut 4, StatusHeadUp 8), or
// a negative device error code. what = 4 asks for the fault bits.
int Printer_GetStatus(int handle, int what);
// Parameter 30 (line speed) also switches this side of a serial link to the
// new rate once the printer has accepted it, so the session goes on.
int Printer_SetParameter(int handle, int parameter, int value);
int Printer_GetParameter(int handle, int parameter, int* value);
// reply (may be null) receives at most replyLength characters.
int Printer_ServiceCommand(int handle, int command, const QString& input, QString* reply, int replyLength);
// Refuses further parameter changes for the rest of this session.
int Printer_LockParameters(int handle);
// v1 = current value; v2..v4 = the three settings last written; v5 = labels
// printed over the printer's life. Null pointers are skipped.
int Printer_GetCounter(int handle, int counter, int* v1, int* v2, int* v3, int* v4, int* v5);
int Printer_SetCounter(int handle, int counter, int value, int a, int b, int c);
// Clears the printer's memory: stored layout and variables (mode "a").
int Printer_Init(int handle, const QString& mode);
// Sends the layout file (label-layout.md) under its base name; -3 when the
// file cannot be read, -8 when it is too large, -7 when the printer already
// holds the same layout.
int Printer_SendLayout(int handle, const QString& path);
// Sets variable number `number` (placeholder {number} of the layout).
int Printer_SendVariable(int handle, const QString& text, int number);
// Prints `copies` labels; mode "i" = immediately. Returns copies printed, -6
// when printed with a missing variable, or -4/-5/-1 for paper, ribbon, head.
int Printer_PrintLabel(int handle, int copies, const QString& mode);

// The printer's name as it answered the open ("" for an unknown handle).
QString Printer_Identity(int handle);
// Upper bound of every call's wait (connection and answer), default 3000 ms.
void Printer_SetTimeout(int ms);
int Printer_Timeout();
// While on, every wait ends at once with -2 and no open succeeds: lets a
// shutdown stop an operation that waits on a silent printer.
void Printer_CancelWaits(bool on);

} // namespace quill
