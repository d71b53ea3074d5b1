#pragma once
// Sends the service's own events to the Windows event log under its event source.
namespace service
{

// Installs the process's event sink on the event source `source` (registered by the package
// with the message table of velomard.exe). Without a source handle, events go nowhere.
void InstallEventLogSink(const wchar_t* source);

} // namespace service
