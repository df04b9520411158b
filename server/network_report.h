#pragma once
// The snapshot of the unit's network interfaces that the controller writes
// into the event log: a header and four lines per interface (status, octets,
// input packets, output packets), or one error text when the interface
// table cannot be read.
#include <string>

#include "platform/win_types.h"

// Where the interface table comes from: the platform's GetIfTable or, in
// tests, a stand-in with the same answers.
using IfTableReader = DWORD (*)(BYTE* table, DWORD* size, BOOL order);

// The report built from `reader`. Reports are serialised by one
// process-wide lock; callable from any thread.
std::wstring networkStatusReport(IfTableReader reader);

// The text of an operational status value ("Status: 'OK'", "Status: ???").
std::wstring operStatusText(DWORD status);
