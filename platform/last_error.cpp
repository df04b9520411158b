#include "platform/last_error.h"

#include <map>

namespace host {
namespace {

thread_local DWORD tlsLastError = 0;
constexpr DWORD ERROR_MR_MID_NOT_FOUND = 317;

// The system message texts for the codes this system meets.
const std::map<DWORD, const wchar_t*>& messageTable() {
    static const std::map<DWORD, const wchar_t*> table = {
        {0, L"The operation completed successfully."},
        {2, L"The system cannot find the file specified."},
        {3, L"The system cannot find the path specified."},
        {5, L"Access is denied."},
        {6, L"The handle is invalid."},
        {8, L"Not enough storage is available to process this command."},
        {31, L"A device attached to the system is not functioning."},
        {32, L"The process cannot access the file because it is being used by another process."},
        {38, L"Reached the end of the file."},
        {50, L"The request is not supported."},
        {80, L"The file exists."},
        {87, L"The parameter is incorrect."},
        {122, L"The data area passed to a system call is too small."},
        {126, L"The specified module could not be found."},
        {127, L"The specified procedure could not be found."},
        {183, L"Cannot create a file when that file already exists."},
        {234, L"More data is available."},
        {258, L"The wait operation timed out."},
        {1010, L"The configuration registry key is invalid."},
        {1167, L"The device is not connected."},
        {1609, L"Handle is in an invalid state."},
        {10004, L"A blocking operation was interrupted by a call to WSACancelBlockingCall."},
        {10009, L"The file handle supplied is not valid."},
        {10013,
         L"An attempt was made to access a socket in a way forbidden by its access permissions."},
        {10014,
         L"The system detected an invalid pointer address in attempting to use a pointer argument "
         L"in a call."},
        {10022, L"An invalid argument was supplied."},
        {10024, L"Too many open sockets."},
        {10035, L"A non-blocking socket operation could not be completed immediately."},
        {10036, L"A blocking operation is currently executing."},
        {10038, L"An operation was attempted on something that is not a socket."},
        {10040,
         L"A message sent on a datagram socket was larger than the internal message buffer or some "
         L"other network limit, or the buffer used to receive a datagram into was smaller than the "
         L"datagram itself."},
        {10048,
         L"Only one usage of each socket address (protocol/network address/port) is normally "
         L"permitted."},
        {10049, L"The requested address is not valid in its context."},
        {10050, L"A socket operation encountered a dead network."},
        {10051, L"A socket operation was attempted to an unreachable network."},
        {10052,
         L"The connection has been broken due to keep-alive activity detecting a failure while the "
         L"operation was in progress."},
        {10053, L"An established connection was aborted by the software in your host machine."},
        {10054, L"An existing connection was forcibly closed by the remote host."},
        {10055,
         L"An operation on a socket could not be performed because the system lacked sufficient "
         L"buffer space or because a queue was full."},
        {10056, L"A connect request was made on an already connected socket."},
        {10057,
         L"A request to send or receive data was disallowed because the socket is not connected "
         L"and (when sending on a datagram socket using a sendto call) no address was supplied."},
        {10058,
         L"A request to send or receive data was disallowed because the socket had already been "
         L"shut down in that direction with a previous shutdown call."},
        {10060,
         L"A connection attempt failed because the connected party did not properly respond after "
         L"a period of time, or established connection failed because connected host has failed to "
         L"respond."},
        {10061, L"No connection could be made because the target machine actively refused it."},
        {10065, L"A socket operation was attempted to an unreachable host."},
        {10093, L"Either the application has not called WSAStartup, or WSAStartup failed."},
    };
    return table;
}

}  // namespace

DWORD GetLastError() {
    return tlsLastError;
}
void SetLastError(DWORD code) {
    tlsLastError = code;
}

std::optional<std::wstring> FormatMessageText(DWORD code) {
    const auto& table = messageTable();
    auto it = table.find(code);
    if (it == table.end()) {
        tlsLastError = ERROR_MR_MID_NOT_FOUND;
        return std::nullopt;
    }
    return std::wstring(it->second) + L"\r\n";
}

}  // namespace host
