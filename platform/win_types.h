#pragma once
// Windows CE scalar types, handle values and the system error codes that the
// controller relies on. Everything above the host layer speaks in these terms.
#include <cstdint>

using BYTE = std::uint8_t;
using WORD = std::uint16_t;
using DWORD = std::uint32_t;
using LONG = std::int32_t;
using BOOL = int;
using UINT = unsigned int;

// A handle is a slot number in the host's handle table; 0 is NULL and all
// ones is INVALID_HANDLE_VALUE, as on the original platform. Slot numbers stay
// small, so printing a handle with "%x" after a cast to unsigned is exact.
using HANDLE = std::uintptr_t;
inline constexpr HANDLE NULL_HANDLE = 0;
inline constexpr HANDLE INVALID_HANDLE_VALUE = ~HANDLE{0};

inline constexpr BOOL TRUE_ = 1;
inline constexpr BOOL FALSE_ = 0;

inline constexpr DWORD INFINITE = 0xFFFFFFFFu;
inline constexpr DWORD WAIT_OBJECT_0 = 0;
inline constexpr DWORD WAIT_TIMEOUT = 258;
inline constexpr DWORD WAIT_FAILED = 0xFFFFFFFFu;

// System error codes.
inline constexpr DWORD ERROR_SUCCESS = 0;
inline constexpr DWORD ERROR_FILE_NOT_FOUND = 2;
inline constexpr DWORD ERROR_PATH_NOT_FOUND = 3;
inline constexpr DWORD ERROR_ACCESS_DENIED = 5;
inline constexpr DWORD ERROR_INVALID_HANDLE = 6;
inline constexpr DWORD ERROR_NOT_ENOUGH_MEMORY = 8;
inline constexpr DWORD ERROR_GEN_FAILURE = 31;
inline constexpr DWORD ERROR_SHARING_VIOLATION = 32;
inline constexpr DWORD ERROR_HANDLE_EOF = 38;
inline constexpr DWORD ERROR_NOT_SUPPORTED = 50;
inline constexpr DWORD ERROR_FILE_EXISTS = 80;
inline constexpr DWORD ERROR_INVALID_PARAMETER = 87;
inline constexpr DWORD ERROR_INSUFFICIENT_BUFFER = 122;
inline constexpr DWORD ERROR_MOD_NOT_FOUND = 126;
inline constexpr DWORD ERROR_PROC_NOT_FOUND = 127;
inline constexpr DWORD ERROR_ALREADY_EXISTS = 183;
inline constexpr DWORD ERROR_MORE_DATA = 234;
inline constexpr DWORD ERROR_BADKEY = 1010;
inline constexpr DWORD ERROR_DEVICE_NOT_CONNECTED = 1167;
inline constexpr DWORD ERROR_INVALID_HANDLE_STATE = 1609;

// Winsock error codes.
inline constexpr DWORD WSAEINTR = 10004;
inline constexpr DWORD WSAEBADF = 10009;
inline constexpr DWORD WSAEACCES = 10013;
inline constexpr DWORD WSAEFAULT = 10014;
inline constexpr DWORD WSAEINVAL = 10022;
inline constexpr DWORD WSAEMFILE = 10024;
inline constexpr DWORD WSAEWOULDBLOCK = 10035;
inline constexpr DWORD WSAEINPROGRESS = 10036;
inline constexpr DWORD WSAENOTSOCK = 10038;
inline constexpr DWORD WSAEMSGSIZE = 10040;
inline constexpr DWORD WSAEADDRINUSE = 10048;
inline constexpr DWORD WSAEADDRNOTAVAIL = 10049;
inline constexpr DWORD WSAENETDOWN = 10050;
inline constexpr DWORD WSAENETUNREACH = 10051;
inline constexpr DWORD WSAENETRESET = 10052;
inline constexpr DWORD WSAECONNABORTED = 10053;
inline constexpr DWORD WSAECONNRESET = 10054;
inline constexpr DWORD WSAENOBUFS = 10055;
inline constexpr DWORD WSAEISCONN = 10056;
inline constexpr DWORD WSAENOTCONN = 10057;
inline constexpr DWORD WSAESHUTDOWN = 10058;
inline constexpr DWORD WSAETIMEDOUT = 10060;
inline constexpr DWORD WSAECONNREFUSED = 10061;
inline constexpr DWORD WSAEHOSTUNREACH = 10065;
inline constexpr DWORD WSANOTINITIALISED = 10093;

// Device-change broadcast events.
inline constexpr DWORD DBT_DEVICEARRIVAL = 0x8000;
inline constexpr DWORD DBT_DEVICEREMOVECOMPLETE = 0x8004;
